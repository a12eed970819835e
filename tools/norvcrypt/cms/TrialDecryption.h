#pragma once

/// \file
/// Decrypting with several identities, and telling for each recipient what became of it.

#include "identities/IdentityOptions.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEncryptionMedia.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// Decrypts one structure. The clear body is held back, in memory and beyond a limit in a private file without a name,
/// until a key has served: an attempt that fails can have written some of it, or garbage.
class TrialDecryption {
public:
    explicit TrialDecryption(std::vector<OwnIdentity> identities);
    ~TrialDecryption();
    TrialDecryption(const TrialDecryption&) = delete;
    TrialDecryption& operator=(const TrialDecryption&) = delete;

    /// Decodes the structure. \throws Norvane::Exception: it is malformed
    void open(Norvane::MediaIn& structure);
    /// Tries the recipients in the structure's order. True when a key served. \throws Failure: nothing is encrypted in
    /// the structure, which messages call `name`
    bool run(const std::string& name);
    /// A line for each recipient that was tried, or why there was none to try.
    [[nodiscard]] std::vector<std::string> report() const;
    /// The clear body, once a key has served.
    [[nodiscard]] Norvane::MediaIn body() const;

    struct State;

private:
    std::shared_ptr<State> m_state;
    std::optional<Norvane::Crypto::CMS::DecrypterMediaIn> m_decrypter;
};

} // namespace norvcrypt
