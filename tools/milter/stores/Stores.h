#pragma once

/// \file
/// Keys, trust and learnt certificates, as they are on the disk, and loaded anew on request.
///
/// \code
/// const auto stores = std::make_shared<Stores>(*config);
/// ...
/// stores->reload();                                       // on SIGHUP; messages in hand finish with the old
/// \endcode
///
/// Everything may be called from any number of threads at once.

#include "config/Config.h"

#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace norvmilter {

class LearntFolder;

/// What one load found. It never changes.
struct LoadedStores {
    /// Null without `store.directory`.
    Norvane::Crypto::NVX509::RefDirectoryKeyStore directory;
    Norvane::Crypto::NVX509::RefKeyStore keys{true}; ///< with the directory in it, if there is one
    std::unique_ptr<const Norvane::Crypto::CMS::KeyListLookup> decryption; ///< never null
    std::unique_ptr<const Norvane::Crypto::Trust::Verifier> verifier;      ///< null without anchors
    std::vector<std::string> problems; ///< what is there and not used, one line each, escaped
    std::size_t identities = 0;
    std::size_t privateKeys = 0;
    Norvane::Crypto::Trust::Material::Counts trust;
    std::time_t loadedAt = 0;
};

class Stores {
public:
    /// Loads everything. \throws Temporary with what cannot be loaded
    explicit Stores(const Config& config);
    ~Stores();
    Stores(const Stores&) = delete;
    Stores& operator=(const Stores&) = delete;

    /// Loads everything beside what is in use, and then takes its place in one step. \throws Temporary as above: the old stays
    /// in use
    void reload();

    [[nodiscard]] std::shared_ptr<const LoadedStores> loaded() const;
    /// Null without `learn.enabled`.
    [[nodiscard]] LearntFolder* learnt() const noexcept { return m_learnt.get(); }

private:
    struct Places;
    [[nodiscard]] std::shared_ptr<const LoadedStores> load() const;

    std::unique_ptr<const Places> m_places;
    std::unique_ptr<LearntFolder> m_learnt;
    std::mutex m_loading;
    mutable std::mutex m_mutex;
    std::shared_ptr<const LoadedStores> m_loaded;
};

} // namespace norvmilter
