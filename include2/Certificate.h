#ifndef NORVCRYPTO_CERTIFICATE_H
#define NORVCRYPTO_CERTIFICATE_H

/// \file
/// X.509 certificates (RFC 5280): reading them from DER, PEM or a file, asking them questions, keeping them in stacks,
/// and the seams for verification and searching.
///
/// \code
/// using namespace Norvane::Crypto;
/// initialize();
///
/// std::list<NVX509::RefCertificate> found;
/// NVX509::CertificateFactory().read(std::string("chain.pem"), found);
/// found.remove_if([](const auto& certificate) { return certificate.isNull(); }); // see CertificateFactory::read
/// for (const auto& certificate : found) {
///     std::cout << certificate->subject().asString() << '\n';                     // CN=Alice,O=Org,C=US
/// }
/// const bool byNames = found.front()->issuedBy(found.back(), true);               // names only, no signature
/// \endcode
///
/// Nothing here verifies a signature or a chain, and nothing throws for bad input. Never decide what someone may do
/// from the text of a name: commas and equals signs inside a value are not escaped there. Compare `DistinguishedName`s.
///
/// Threads: accessors fill caches on first use without a lock. Use a certificate from one thread, or call `warm()` once
/// before sharing it; then all its accessors may be used from any number of threads at once.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/File.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/Mutex.h>
#include <norvcrypto/ASN1.h>
#include <norvcrypto/CRLDistributionPoint.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Export.h>
#include <norvcrypto/Extension.h>
#include <norvcrypto/Key.h>
#include <norvcrypto/NorvRefcounted>
#include <norvcrypto/Validity.h>
#include <norvcrypto/detail/Lazy.h>

#include <boost/shared_ptr.hpp>

#include <list>
#include <memory>
#include <string>

struct x509_st;
struct stack_st_X509;

namespace Norvane::Crypto::NVX509 {

class RefCertificate;

/// The body of a certificate: owns or borrows one OpenSSL `X509` and answers questions about it. Use it through
/// `RefCertificate`. What the accessors return by reference (names, serial number, extensions, period) borrows from the
/// certificate: keep a handle on it for as long as you use that, and copies of it.
///
/// Every answer is kept once it was found; the `X509` must not change under the certificate.
class NORVCRYPTO_EXPORT Certificate : public RefImpl, private NonCopyable {
public:
    /// \param x509 borrowed, and has to outlive the body; may be null, which gives a certificate of empty answers. So does
    ///             one with more distribution points relative to its issuer than OpenSSL can be let loose on (see
    ///             Acceptance.h): it is not touched. Use `CertificateFactory::operator()` for a certificate that owns its
    ///             `X509`.
    explicit Certificate(x509_st* x509);
    /// Frees the `X509` if it is owned.
    ~Certificate() override;

    /// Equal serial numbers and equal signature bits: nothing else is compared, and no signature is verified. Two
    /// certificates without `X509` are equal, one without is unequal to one with.
    ///
    /// Not for telling certificates of strangers apart: anybody can make a certificate of any name and key that is equal
    /// to a given one, by copying its serial number and signature. Use `sameEncoding` there.
    /// \throws Exception as `serialNumber()`, when the signatures are equal and a serial number is negative
    bool operator==(const Certificate& other) const;

    /// The issuer's name; an empty one without `X509`.
    [[nodiscard]] const DistinguishedName& issuer() const;
    /// The subject's name; an empty one without `X509`.
    [[nodiscard]] const DistinguishedName& subject() const;
    /// The subject as one slash-separated line ("/C=US/O=Org/CN=Alice"), for people to read; bytes outside printable
    /// ASCII appear as \\xNN. Empty without `X509`. `subject().asString()` is the library's own form.
    [[nodiscard]] const std::string& name() const;
    /// The version field as encoded: 0 for version 1, 2 for version 3; -1 without `X509`.
    [[nodiscard]] long version() const;
    /// The serial number; an integer without value when there is no `X509`.
    /// \throws Exception "ASN1::Integer::Integer", code 4, source "ASN1", line 25, "Parameter value is not an ASN1
    /// Integer", each time it is asked for: a negative serial number (which RFC 5280, 4.1.2.2 forbids)
    [[nodiscard]] const ASN1::Integer& serialNumber() const;
    /// The validity period; no moment lies in that of a certificate without `X509`.
    [[nodiscard]] const ValidityPeriod& validityPeriod() const;
    /// The subject's public key. Never an empty handle; its `EVP_PKEY` is null when the certificate carries no key that
    /// can be decoded by itself (DSA with inherited parameters, an unknown algorithm).
    [[nodiscard]] RefKey key() const;

    /// The key usage bits as OpenSSL numbers them (0x80 digitalSignature, 0x40 nonRepudiation, 0x20 keyEncipherment,
    /// 0x10 dataEncipherment, 0x08 keyAgreement, 0x04 keyCertSign, 0x02 cRLSign, 0x01 encipherOnly, 0x8000
    /// decipherOnly). 0 when the extension is absent: no bit is granted then, although RFC 5280 would allow every use.
    [[nodiscard]] unsigned long keyUsage() const;
    /// The extended key usage bits as OpenSSL numbers them (0x01 TLS server, 0x02 TLS client, 0x04 mail protection,
    /// 0x08 code signing, 0x20 OCSP signing, 0x40 time stamping, ...). 0 when the extension is absent.
    [[nodiscard]] unsigned long extendedKeyUsage() const;

    /// The extensions in the order of the certificate.
    [[nodiscard]] const std::list<RefExtension>& extensions() const;
    /// The first extension with this identifier, or an empty handle.
    [[nodiscard]] RefExtension find(const ASN1::RefObjectIdentifier& identifier) const;
    /// The typed extensions; an empty handle when the certificate has none, a handle on a body of empty answers when it
    /// has one that does not decode.
    [[nodiscard]] const RefSubjectAlternativeName& subjectAlternativeName() const;
    [[nodiscard]] const RefBasicConstraints& basicConstraints() const;
    [[nodiscard]] RefCRLDistributionPoints crlDistributionPoints() const;
    [[nodiscard]] const RefAuthorityKeyIdentifier& authorityKeyIdentifier() const;
    /// The octets of the subject key identifier; an empty handle when the certificate has none.
    [[nodiscard]] const ASN1::RefOctetString& subjectKeyIdentifier() const;

    /// Whether issuer and subject are the same name (two absent ones are). No signature is verified.
    [[nodiscard]] bool isSelfSigned() const;
    /// Whether the certificate says that it belongs to an authority: by the flag of its basic constraints when it has
    /// some that decode; otherwise never when it restricts key usage, and else when it is self-signed. False without
    /// `X509`.
    [[nodiscard]] bool isCACert() const;
    /// Whether `issuer` may have issued this certificate, by names and key identifiers; no signature is verified.
    /// \param issuer        an empty handle has issued nothing
    /// \param checkKeyUsage true demands in addition that the issuer's key usage has keyCertSign, so that an issuer
    ///                      without key usage extension is refused
    [[nodiscard]] bool issuedBy(const RefCertificate& issuer, bool checkKeyUsage) const;

    /// Writes the certificate as DER. `out` is not ended. Nothing is written without `X509`, and an encoder's failure
    /// is not reported. \throws whatever `out` throws
    void writeDER(MediaOut& out);
    /// Writes the certificate as PEM ("-----BEGIN CERTIFICATE-----"); otherwise as `writeDER`.
    void writePEM(MediaOut& out);

    /// Gives the `X509` away: it survives the body, and whoever took it frees it.
    void relinquishOwnerShip();

    /// Fills every cache, names, key and typed extensions included, so that the certificate can be shared between
    /// threads; may itself be called from several threads at once. One accessor stays for one thread at a time:
    /// `GeneralName::emailAddress()`, which parses anew on every call. Never throws for a malformed certificate.
    void warm() const;

private:
    friend class CertificateFactory;
    friend class RefCertificate;
    friend class CertificateRevocationList;

    /// Extensions that were looked for and are not there, as bits.
    enum Absent : unsigned int {
        noAlternativeName = 1,
        noConstraints = 2,
        noPoints = 4,
        noAuthorityKey = 8,
        noOwnKey = 16
    };

    [[nodiscard]] RefExtension findOnce(const char* identifier, Absent bit) const;
    template <class Handle> const Handle& typedExtension(Handle& cache, const char* identifier, Absent bit) const;
    void warmExtensions() const;

    /// Guards `warm()`, of certificates and lists.
    static Mutex m_Mutex;

    x509_st* m_x509;
    bool m_owned = false;
    mutable detail::TriState m_selfSigned = detail::TriState::unknown;
    mutable std::unique_ptr<X509_val_st> m_times;
    mutable ValidityPeriod m_validity{nullptr};
    mutable RefKey m_publicKey;
    mutable std::string m_oneLineName;
    mutable DistinguishedName m_issuerName;
    mutable DistinguishedName m_subjectName;
    mutable ASN1::Integer m_serial;
    mutable ASN1::RefOctetString m_subjectKeyId;
    mutable RefAuthorityKeyIdentifier m_authorityKeyId;
    mutable RefBasicConstraints m_basicConstraints;
    mutable RefCRLDistributionPoints m_crlDistributionPoints;
    mutable RefSubjectAlternativeName m_subjectAltName;
    mutable std::list<RefExtension> m_extensions;
    mutable detail::TriState m_caCert = detail::TriState::unknown;
    mutable unsigned int m_absent = 0;
};

} // namespace Norvane::Crypto::NVX509

namespace Norvane {
extern template class RefCounted<Crypto::NVX509::Certificate>;
extern template class Ref<Crypto::NVX509::Certificate>;
} // namespace Norvane

namespace Norvane::Crypto::NVX509 {

/// A handle on a certificate. Copies share the certificate.
class NORVCRYPTO_EXPORT RefCertificate : public Ref<Certificate> {
public:
    /// An empty handle.
    RefCertificate();
    /// Takes over a body that was just made with `new`.
    /// \throws Exception "RefCounted constructor for RefImpl failed.", code 4, no file, line 0: a null body
    explicit RefCertificate(Certificate* certificate);
    RefCertificate(const RefCertificate& other);
    RefCertificate& operator=(const RefCertificate& other);
    ~RefCertificate() override;

    /// The `X509`, which stays the certificate's; null for an empty handle.
    operator x509_st*() const; // NOLINT(google-explicit-constructor): handed to C functions as it is
    /// Compares as `Certificate::operator==`, with its exception and its weakness. Two empty handles are equal, an empty one is unequal
    /// to a full one.
    bool operator==(const RefCertificate& other) const;
};

/// Whether two handles hold one certificate, byte for byte: equal DER, as `writeDER` writes it. False when one of them
/// holds none, or one that cannot be encoded. To be asked, in place of `==`, wherever a certificate comes from outside;
/// it says nothing about trust.
[[nodiscard]] NORVCRYPTO_EXPORT bool sameEncoding(const RefCertificate& left, const RefCertificate& right);

/// Certificates together with the OpenSSL stack that OpenSSL's own calls take.
class NORVCRYPTO_EXPORT StackOfCertificate : private NonCopyable {
public:
    StackOfCertificate();
    /// Frees the stack; the certificates live as long as their handles.
    ~StackOfCertificate();

    /// The handles in the order in which they were added.
    [[nodiscard]] const std::list<RefCertificate>& certificates() const;
    /// Adds a handle and puts its `X509` on the OpenSSL stack. A handle without `X509` is kept among `certificates()`,
    /// but nothing goes onto the OpenSSL stack, whose users do not expect a null entry.
    void add(const RefCertificate& certificate);
    /// The OpenSSL stack, which stays this object's; null when it could not be made.
    [[nodiscard]] stack_st_X509* stack() const;

private:
    stack_st_X509* m_stack;
    std::list<RefCertificate> m_certificates;
};

/// A shared stack.
class NORVCRYPTO_EXPORT RefStackOfCertificate : public boost::shared_ptr<StackOfCertificate> {
public:
    /// A new, empty stack.
    RefStackOfCertificate();
    /// A new stack of these certificates, in their order.
    explicit RefStackOfCertificate(const std::list<RefCertificate>& certificates);

    /// The OpenSSL stack, which lives as long as the shared one.
    operator stack_st_X509*() const; // NOLINT(google-explicit-constructor): handed to C functions as it is
};

/// Makes certificates from bytes and files. Nothing throws for bad input; the OpenSSL error queue is left as it was.
/// Stateless: one factory may be used from several threads.
class NORVCRYPTO_EXPORT CertificateFactory {
public:
    CertificateFactory();
    CertificateFactory(const CertificateFactory& other) = default;
    CertificateFactory& operator=(const CertificateFactory& other) = default;
    virtual ~CertificateFactory();

    /// A certificate around an `X509`, which may be null. One that is refused (see Acceptance.h) gives a certificate
    /// without `X509`.
    /// \param own true: the certificate frees it, one that is refused at once; false: the caller keeps it and lets it
    ///            outlive the certificate
    RefCertificate operator()(x509_st* x509, bool own) const;
    /// The certificate at the start of `der`; bytes after it are ignored. An empty handle when it does not decode, and
    /// when it is refused without being decoded (see Acceptance.h: `refusal` tells one from the other), as one of 2 GiB
    /// and more is.
    [[nodiscard]] RefCertificate readDER(const Buffer& der) const;
    /// Appends the certificates of PEM text in order. Other text and blocks of other kinds are skipped; reading ends
    /// silently at the first certificate block that does not decode or is refused. A block with an encryption header does not: no
    /// pass phrase is ever asked for.
    void readPem(const Buffer& pem, std::list<RefCertificate>& certificates) const;
    /// Appends the certificates of DER or PEM bytes (DER when the first byte is 0x30).
    ///
    /// Deliberate: after PEM text one empty handle follows the certificates, and bytes that are neither give one empty
    /// handle, since the DER reading is always tried and its answer kept. Skip empty handles.
    void read(const Buffer& bytes, std::list<RefCertificate>& certificates) const;
    /// Appends the certificates of a whole file, as above. Nothing is appended for a path that does not exist, or that
    /// cannot be read to its end: a directory, missing permission, a file of 2 GiB or more, one that vanishes.
    void read(const File::Path& path, std::list<RefCertificate>& certificates) const;
    void read(const std::string& path, std::list<RefCertificate>& certificates) const;
};

/// The seam for the calling program's own check of a chain of trust. The library never calls it.
///
/// \code
/// struct Verifier : NVX509::CertificateVerifier {
///     bool isValid(const NVX509::RefCertificate& certificate, int purpose, bool online) override;
/// };
/// static Verifier verifier;
/// NVX509::CertificateVerifier::s_instance = &verifier;         // once, before other threads start
/// \endcode
class NORVCRYPTO_EXPORT CertificateVerifier {
public:
    CertificateVerifier();
    CertificateVerifier(const CertificateVerifier& other) = default;
    CertificateVerifier& operator=(const CertificateVerifier& other) = default;
    virtual ~CertificateVerifier();

    /// Whether the certificate is to be trusted. What the number and the flag mean is up to the override.
    /// \throws Exception "CertificateVerifier::isValid", code 4, source "Certificate", line 646: always; an override
    ///         decides for itself
    virtual bool isValid(const RefCertificate& certificate, int, bool);

    /// The installed verifier.
    /// \throws Exception "CertificateVerifier::instance", code 4, source "Certificate", line 631: none is installed
    static CertificateVerifier* instance();

    /// The verifier of this process, null until the program sets it; not owned. Read without a lock.
    static CertificateVerifier* s_instance;
};

/// A predicate over certificates, made for a reference certificate whose handle it keeps.
class NORVCRYPTO_EXPORT CertificateFilter {
public:
    explicit CertificateFilter(const RefCertificate& reference);
    CertificateFilter(const CertificateFilter& other) = default;
    CertificateFilter& operator=(const CertificateFilter& other) = default;
    virtual ~CertificateFilter();

    virtual bool operator()(const RefCertificate& candidate) = 0;

protected:
    [[nodiscard]] const RefCertificate& reference() const { return m_reference; }

private:
    RefCertificate m_reference;
};

/// Is the candidate the reference certificate? Compares as `RefCertificate::operator==`: serial number and signature
/// bits, which anybody can copy into another certificate. Use `SameEncodingFilter` for candidates from outside.
class NORVCRYPTO_EXPORT ExactMatchFilter : public CertificateFilter {
public:
    explicit ExactMatchFilter(const RefCertificate& reference);
    ExactMatchFilter(const ExactMatchFilter& other) = default;
    ExactMatchFilter& operator=(const ExactMatchFilter& other) = default;
    ~ExactMatchFilter() override;

    bool operator()(const RefCertificate& candidate) override;
};

/// Is the candidate the reference certificate, byte for byte? Compares as `sameEncoding`: an empty handle matches
/// nothing, not even another one.
class NORVCRYPTO_EXPORT SameEncodingFilter : public CertificateFilter {
public:
    explicit SameEncodingFilter(const RefCertificate& reference);
    SameEncodingFilter(const SameEncodingFilter& other) = default;
    SameEncodingFilter& operator=(const SameEncodingFilter& other) = default;
    ~SameEncodingFilter() override;

    bool operator()(const RefCertificate& candidate) override;
};

/// May the candidate be the issuer of the reference certificate, by names and, where both have them, key identifiers?
/// Unlike `Certificate::issuedBy` it accepts a candidate without subject key identifier and never looks at key usage.
/// Empty handles are never the issuer of anything, nor issued.
class NORVCRYPTO_EXPORT IssuerFilter : public CertificateFilter {
public:
    explicit IssuerFilter(const RefCertificate& subject);
    IssuerFilter(const IssuerFilter& other) = default;
    IssuerFilter& operator=(const IssuerFilter& other) = default;
    ~IssuerFilter() override;

    bool operator()(const RefCertificate& candidate) override;
};

} // namespace Norvane::Crypto::NVX509

#endif
