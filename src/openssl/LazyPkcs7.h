#pragma once

/// \file
/// A PKCS#7 structure of which only what everybody asks for is decoded at once. OpenSSL takes a fraction of a millisecond
/// for each certificate, and copies a content that may be most of a message; both wait here until somebody asks.
///
/// What waits is assured (Assured.h): a structure that is here decodes throughout, so that the answer to bytes which do not
/// decode comes when it always did. Signed data: the certificates and the revocation lists. Enveloped data: the recipients
/// and the encrypted content. Other types, and parts that are not assured, do not wait.

#include "openssl/Assured.h"
#include "openssl/EncryptedOctets.h"
#include "openssl/Pkcs7.h"
#include "openssl/StructureOctets.h"

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

namespace Norvane::Crypto::openssl {

class LazyPkcs7 {
public:
    using RecipientPtr = Owned<PKCS7_RECIP_INFO, PKCS7_RECIP_INFO_free>;

    /// Null when the octets are no structure or are refused, with the reasons in the error queue (as `decodePkcs7`).
    static std::unique_ptr<LazyPkcs7> decode(StructureOctets octets);

    /// A structure in which nothing waits.
    explicit LazyPkcs7(Pkcs7Ptr structure) noexcept : m_structure(std::move(structure)) {}
    LazyPkcs7(const LazyPkcs7&) = delete;
    LazyPkcs7& operator=(const LazyPkcs7&) = delete;

    /// The structure as far as it is decoded: without certificates, lists, recipients and encrypted content until they are
    /// asked for. It stays this one.
    [[nodiscard]] PKCS7* structure() const noexcept { return m_structure.get(); }

    // The following decode what waits into the structure, once. \throws std::bad_alloc

    void decodeCertificates();
    void decodeLists();
    void decodeRecipients();
    void decodeContent();
    void decodeAll();

    /// The certificates one by one while they are not in the structure: who each is about, and the certificate, which is
    /// decoded then and is the one that comes to stand in the structure.
    [[nodiscard]] std::size_t waitingCertificates() const noexcept;
    [[nodiscard]] const AssuredName& nameOfCertificate(std::size_t index) const { return m_certificates[index].name; }
    X509* certificate(std::size_t index);

    /// The recipients one by one; those that wait are decoded by `recipient`. A recipient may be null.
    [[nodiscard]] std::size_t recipients() const noexcept;
    /// Who a recipient is, when it need not be decoded for that; else null.
    [[nodiscard]] const AssuredName* nameOfRecipient(std::size_t index) const noexcept;
    const PKCS7_RECIP_INFO* recipient(std::size_t index);

    [[nodiscard]] EncryptedOctets encryptedOctets() const noexcept;

private:
    template <class Pointer> struct Waiting {
        framing::Octets element;
        AssuredName name{};
        Pointer decoded{};
    };
    struct Parts;

    template <auto Decode, class Stack, class Part> static void decodeInto(Stack*& stack, std::vector<Part>& parts);
    Pkcs7Ptr decodeSkeleton();
    Pkcs7Ptr decodeSigned(framing::Octets type, Parts& parts);
    Pkcs7Ptr decodeEnveloped(framing::Octets type, Parts& parts);
    bool takeCertificates(framing::Octets element);
    bool takeLists(framing::Octets element);
    bool takeRecipients(framing::Octets element);

    Pkcs7Ptr m_structure;
    StructureOctets m_octets;                 ///< what the parts of an enveloped structure lie in
    std::vector<unsigned char> m_ofSigned[2]; ///< what those of a signed one lie in
    std::vector<Waiting<CertificatePtr>> m_certificates;
    std::vector<Waiting<CrlPtr>> m_lists;
    std::vector<Waiting<RecipientPtr>> m_recipients;
    EncryptedOctets m_content; ///< none when it does not wait
    bool m_certificatesWait = false;
    bool m_listsWait = false;
    bool m_recipientsWait = false;
    bool m_contentWaits = false;
};

} // namespace Norvane::Crypto::openssl
