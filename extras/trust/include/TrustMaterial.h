#ifndef NORVCRYPTO_TRUST_TRUST_MATERIAL_H
#define NORVCRYPTO_TRUST_TRUST_MATERIAL_H

/// \file
/// What a verifier believes and builds on: anchors, intermediate certificates and revocation lists, from files, directories
/// and single objects.
///
/// \code
/// auto material = std::make_shared<Trust::Material>();
/// material->addAnchors("/etc/mail/roots");             // a file or a directory
/// material->addListCache("/var/cache/lists");
/// for (const auto& problem : material->problems()) {
///     warn(problem.path, problem.reason);              // skipped; the rest is used
/// }
/// const Trust::Verifier verifier(material);
/// ...
/// material->reload();                                  // on SIGHUP; judging goes on meanwhile
/// \endcode
///
/// **Files** hold PEM (any number of blocks, text around them does not count) or DER (one object; what follows it is told as a
/// problem): certificates, revocation lists, or a structure with certificates and lists alone (.p7b, RFC 5652's degenerate
/// signed-data). Certificates and lists may stand in one file: the certificates become what the call says, the lists are used
/// as lists. Up to 64 MiB.
///
/// **Directories** are read whole, whatever their files are named, hashed names (`openssl rehash`) and others; links are
/// followed, one object that is found under several names counts once. Names that begin with a dot and folders in them are
/// left alone.
///
/// **List caches** are directories in which a list is filed by where it is distributed: the name of a file is
/// `listCacheName(URI)`, the URI being that of the certificate's distribution point byte by byte. So whoever fetches knows the
/// file that a list replaces. Lists in a cache count as those of other folders do: for every certificate of their issuer, and
/// for those that name their issuer for their lists. Nothing here fetches anything: a job of its own does, writing to a
/// name that begins with a dot and renaming.
///
/// **Threads.** Everything here may be called from any number of threads at once, while verifiers use it.

#include <norvcrypto/Certificate.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Export.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Norvane::Crypto::Trust {

namespace detail {
class Sources;
struct Snapshot;
} // namespace detail

/// The name under which a list cache files the list of a distribution point: the SHA-256 of the URI's bytes in lower-case
/// hexadecimal, and ".crl".
[[nodiscard]] NORVCRYPTO_EXPORT std::string listCacheName(const std::string& uri);

/// Anchors, intermediates and lists.
class NORVCRYPTO_EXPORT Material {
public:
    /// Something that is not used.
    struct Problem {
        std::string
            path; ///< the file, or the directory; any bytes: escape it before you show it. Empty for single objects
        std::string reason; ///< for people, without its end of sentence; one line
    };
    /// How much there is, each object once.
    struct Counts {
        std::size_t anchors = 0;
        std::size_t untrusted = 0;
        std::size_t lists = 0;
    };

    Material();
    ~Material();
    Material(const Material&) = delete;
    Material& operator=(const Material&) = delete;

    /// Adds what a file or directory holds; it is read at once, and again by `reload()`. What is in it and cannot be used is
    /// among the `problems()`.
    /// \throws Exception "Trust::Material", code 4, source "TrustMaterial", with the path and the reason: it cannot be opened
    ///         or read. Nothing has changed then.
    void addAnchors(const std::string& path);
    void addUntrusted(const std::string& path);
    void addLists(const std::string& path);
    /// As above; the path must be a directory.
    void addListCache(const std::string& directory);

    /// Adds one object, which is shared: its `X509` or `X509_CRL` must not change. It is warmed. An empty handle adds nothing.
    void addAnchor(const NVX509::RefCertificate& certificate);
    void addUntrusted(const NVX509::RefCertificate& certificate);
    void addList(const NVX509::RefCertificateRevocationList& list);

    /// Reads all paths anew beside what is there, and then takes its place in one step: each verdict is reached with the old
    /// or with the new. Files that did not change (device, inode, size, times) are not read again.
    /// \throws Exception as `addAnchors`: a path that was added cannot be opened any more. The old stays in use.
    void reload();

    /// What was not used, in the order in which it was added.
    [[nodiscard]] std::vector<Problem> problems() const;
    [[nodiscard]] Counts counts() const;
    /// The anchors, each once.
    [[nodiscard]] std::vector<NVX509::RefCertificate> anchors() const;

private:
    friend class Verifier;
    [[nodiscard]] std::shared_ptr<const detail::Snapshot> snapshot() const;

    std::unique_ptr<detail::Sources> m_sources;
};

} // namespace Norvane::Crypto::Trust

#endif
