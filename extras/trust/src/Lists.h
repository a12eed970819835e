#pragma once

/// \file
/// Which revocation lists OpenSSL gets to choose from for a certificate.

#include "OpenSsl.h"
#include "Snapshot.h"

#include <norvcrypto/CertificateRevocationList.h>

#include <ctime>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

class Lists {
public:
    /// A list that is kept from OpenSSL.
    struct LeftOut {
        NVX509::RefCertificateRevocationList list;
        const char* why;
    };

    /// The number of a list, as its octets after how many they are, which compare as numbers do. Without one, or below 0, the least.
    using Number = std::pair<std::size_t, std::string>;
    /// When it began, and its number: of two that began in the same second that tells which is newer (RFC 5280, 5.2.3).
    using Age = std::pair<std::time_t, Number>;

    /// \param at the moment to judge by
    Lists(const Snapshot& snapshot, const std::list<NVX509::RefCertificateRevocationList>& fromMessage, std::time_t at);

    /// The lists that may cover a certificate: those of its issuer and of the issuers that its distribution points name:
    /// OpenSSL takes none of anybody else. All that are equally fit go onto one stack, so that the newest wins: lists
    /// of the message that stood before the others would hide what was revoked since.
    /// \param issuer whoever issued the certificate, if that is known: a list of the message counts only if it, or somebody
    ///               of the same name in the snapshot, signed it. OpenSSL chooses among lists before it looks at signatures,
    ///               and takes an old one for one that is over or odd, so that what is older than one that revokes is left out
    Owned<STACK_OF(X509_CRL)> of(const X509* certificate, const X509_NAME* issuerName, X509* issuer);

    /// A list by one whom the certificate names for its lists beside its issuer, when nobody is known who may have signed
    /// it; null when there is none. \param candidates what is known beside the snapshot
    [[nodiscard]] X509_CRL* withoutSigner(const X509* certificate, const std::vector<X509*>& candidates) const;

    [[nodiscard]] const std::vector<X509_CRL*>& handedOut() const { return m_handedOut; }
    [[nodiscard]] const std::vector<LeftOut>& leftOut() const { return m_leftOut; }
    [[nodiscard]] NVX509::RefCertificateRevocationList handleOf(X509_CRL* list) const;

private:
    class Choice;

    /// Since when a list that OpenSSL would not take says that the certificate is revoked; nothing when none does.
    /// \param lists in order
    [[nodiscard]] std::optional<Age> revokedSince(const std::vector<X509_CRL*>& lists, const X509* certificate,
                                                  X509* issuer);
    /// Puts the newest first, by its number where two began in the same second: OpenSSL takes the first of these. Delta lists stand
    /// behind the others, since it takes the first that goes with the list that it chose. Of them those that are to come are last,
    /// and in front of them those that OpenSSL would not take were they complete, unless they revoke.
    void putInOrder(std::vector<X509_CRL*>& lists, const X509* certificate, X509* issuer);
    [[nodiscard]] bool isSigned(X509_CRL* list, X509* issuer);
    [[nodiscard]] bool isSignedBy(X509_CRL* list, X509* issuer);
    void leaveOut(X509_CRL* list, const char* why);

    const Snapshot& m_snapshot;
    const std::time_t m_at;
    std::unordered_map<const X509_CRL*, NVX509::RefCertificateRevocationList> m_handles;
    std::vector<X509_CRL*> m_fromMessage;
    std::map<std::pair<const X509_CRL*, const X509*>, bool> m_signed;
    std::vector<X509_CRL*> m_handedOut;
    std::vector<LeftOut> m_leftOut;
};

/// How many elements without elements in them an extension has, those that only say that they have none, too: no fewer than names.
/// 0 for a null extension.
std::size_t leavesOf(const X509_EXTENSION* extension);
/// How many elements the outer element of an extension has.
std::size_t elementsOf(const X509_EXTENSION* extension);
/// The octets of an extension's value.
std::size_t octetsOf(const X509_EXTENSION* extension);
/// An extension of a certificate, or null.
const X509_EXTENSION* extensionOf(const X509* certificate, int nid);

/// The URIs of the distribution points of a certificate, in their order, at most `most`.
std::vector<std::string> urisOf(const CRL_DIST_POINTS* points, std::size_t most);

} // namespace Norvane::Crypto::Trust::detail
