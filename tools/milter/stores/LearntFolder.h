#pragma once

/// \file
/// Certificates that were learnt from signed mails: a folder of the layout of a key store, one identity for each.
///
///     learnt/3f0c...-91ab.../cert.pem    the certificate
///                            owners.txt  the address that it is for
///                            learnt.toml from whom, when and in which message it came
///     learnt/.revoked-3f0c...-91ab.../   the same, once it was revoked: it is neither used nor learnt again,
///                                         nor where somebody copied the first one here anew
///
/// The name is made of the digests of address and certificate, so that a look-up opens only what it wants, and several filters may
/// share the folder: what one learns the others find when they load the folder anew, or would learn it themselves.
///
/// Everything may be called from any number of threads at once.

#include <norvcrypto/Certificate.h>

#include <cstddef>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace norvmilter {

/// What became of a certificate that could be learnt.
enum class Learning {
    learnt,
    known,      ///< it is there
    revoked,    ///< an operator does not want it
    full,       ///< the folder has as many as it may
    notNewer,   ///< the address has as many as it may, all of which last as long
    unsuitable, ///< an address with characters that mean something in owners.txt, or a certificate that is none
};
/// "learnt", "not-newer"
[[nodiscard]] const char* nameOf(Learning result) noexcept;

/// A certificate in the folder.
struct LearntEntry {
    std::string name; ///< of its folder, without ".revoked-"
    bool revoked = false;
    std::string address;
    std::string message; ///< the Message-ID, escaped
    std::string queueId;
    std::string at; ///< "2026-01-31T12:00:00Z"
    std::string subject;
    std::string serial;
};

class LearntFolder {
public:
    /// Reads which certificates are there. \throws Temporary the folder cannot be read
    LearntFolder(std::string folder, unsigned int perAddress, unsigned int total);

    /// Reads it anew. \throws Temporary as above: what was known stays
    void reload();

    /// Those of an address that can be read and are for it, the one that lasts longest first.
    [[nodiscard]] std::vector<Norvane::Crypto::NVX509::RefCertificate> find(const std::string& address) const;

    /// Keeps a certificate, which the caller found to be trusted and that of the address.
    /// \throws Temporary it cannot be written
    Learning learn(const std::string& address, const Norvane::Crypto::NVX509::RefCertificate& certificate,
                   const std::string& messageId, const std::string& queueId);

    [[nodiscard]] std::size_t size() const;
    [[nodiscard]] const std::string& folder() const noexcept { return m_folder; }

    /// All of a folder, by name. \throws Temporary as above
    [[nodiscard]] static std::vector<LearntEntry> list(const std::string& folder);
    /// \returns false: there is none of that name. \throws Temporary it cannot be renamed
    static bool revoke(const std::string& folder, const std::string& name);

private:
    /// The names by the digest of the address.
    using Names = std::map<std::string, std::set<std::string>>;

    [[nodiscard]] static Names namesIn(const std::string& folder, std::size_t& count);
    /// Which of an address's makes room for one: empty when there is room. Nothing when none may go for it.
    [[nodiscard]] std::optional<std::string> outlived(const std::set<std::string>& names,
                                                      const Norvane::Crypto::NVX509::RefCertificate& certificate) const;

    std::string m_folder;
    unsigned int m_perAddress;
    unsigned int m_total;
    mutable std::mutex m_mutex;
    std::size_t m_count = 0; ///< of `m_names`, which sets it
    Names m_names;
};

} // namespace norvmilter
