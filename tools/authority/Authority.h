#pragma once

/// \file
/// Issues certificates and revocation lists, proper and odd ones, for the demo, tests, benchmarks and fuzzing. It
/// stands on OpenSSL's keys and digests alone and writes the DER itself (see Der.h).
///
/// \code
/// using namespace norvauthority;
/// const Identity ca = issue({.subject = {{"CN", "Root"}, {"C", "DE"}}, .ca = true});
/// const Identity alice = issue({.subject = {{"CN", "Alice"}},
///                               .issuer = &ca,
///                               .serial = "-1f",
///                               .alternativeNames = {GeneralName::email("alice@example.org")}});
/// const Crl list = issueList({.issuer = &ca, .revoked = {{.serial = "-1f"}}, .crlNumber = "7"});
/// X509* x509 = alice.certificate.x509().release();
/// \endcode
///
/// Failures are thrown as std::runtime_error or std::invalid_argument. Values are independent copies; keys are shared.

#include <authority/Der.h>

#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvauthority {

struct Freeing {
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(X509_CRL* list) const noexcept { X509_CRL_free(list); }
    void operator()(X509_NAME* name) const noexcept { X509_NAME_free(name); }
    void operator()(PKCS7* structure) const noexcept { PKCS7_free(structure); }
};
using X509Ptr = std::unique_ptr<X509, Freeing>;
using CrlPtr = std::unique_ptr<X509_CRL, Freeing>;
using NamePtr = std::unique_ptr<X509_NAME, Freeing>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Freeing>;

/// "-----BEGIN label-----", base64 lines of 64 characters, "-----END label-----".
std::string pem(const std::string& label, const Bytes& der);

/// A private key, shared by its copies.
class Key {
public:
    Key() = default; ///< none: `issue` makes an RSA key of 2048 bits instead
    static Key rsa(unsigned int bits = 2048);
    /// DSA over 1024-bit parameters, made once in a process (parameters take long).
    static Key dsa();
    static Key ec(const std::string& curve = "P-256");
    static Key ed25519();
    /// Shares a key that exists; the caller keeps its own reference.
    static Key of(EVP_PKEY* key);
    /// An unencrypted private key in PEM.
    static Key fromPem(const std::string& text);
    /// A private key in DER: PKCS#8 or the traditional form.
    static Key fromDer(const Bytes& der);

    [[nodiscard]] EVP_PKEY* get() const noexcept { return m_key.get(); }
    /// A reference of the caller's own, to be freed with EVP_PKEY_free.
    [[nodiscard]] EVP_PKEY* newReference() const;
    explicit operator bool() const noexcept { return m_key != nullptr; }

    [[nodiscard]] Bytes publicDer() const; ///< SubjectPublicKeyInfo
    [[nodiscard]] Bytes pkcs8() const;
    [[nodiscard]] Bytes traditionalDer() const; ///< RSAPrivateKey, ECPrivateKey, ...
    [[nodiscard]] std::string publicPem() const;
    [[nodiscard]] std::string pkcs8Pem() const;
    /// Encrypted PKCS#8 (PBES2, AES-256-CBC).
    [[nodiscard]] std::string encryptedPem(const std::string& passphrase) const;
    /// The key identifier that certificates carry: SHA-1 of the public key's bits.
    [[nodiscard]] Bytes identifier() const;

private:
    explicit Key(EVP_PKEY* key) : m_key(key, Freeing{}) {}
    std::shared_ptr<EVP_PKEY> m_key;
};

/// One attribute of a name. `value` holds the bytes of the string as they shall stand in the name.
struct NameEntry {
    std::string type; ///< "CN", "emailAddress", "2.5.4.3"
    std::string value{};
    int stringType = 12;             ///< V_ASN1_UTF8STRING; any universal tag
    bool joinsPreceding = false;     ///< true: in one multi-valued component with the entry before
    std::optional<Bytes> rawOid{};   ///< content octets that replace `type`
    std::optional<Bytes> rawValue{}; ///< a whole element that replaces value and string type
};

/// A distinguished name: entries in the order given.
class Name {
public:
    Name() = default;
    Name(std::initializer_list<NameEntry> entries) : m_entries(entries) {}
    static Name fromDer(Bytes der); ///< takes any bytes for the name
    Name& add(NameEntry entry);
    Name& add(const std::string& type, const std::string& value, int stringType = 12);
    [[nodiscard]] Bytes der() const;
    /// The first component as a RelativeDistinguishedName: a SET.
    [[nodiscard]] Bytes firstComponent() const;
    [[nodiscard]] NamePtr x509Name() const;

private:
    [[nodiscard]] std::vector<Bytes> components() const;
    std::vector<NameEntry> m_entries;
    std::optional<Bytes> m_der;
};

/// A general name, held as the element it becomes.
struct GeneralName {
    Bytes der;
    static GeneralName otherName(const std::string& oid, const Bytes& value);
    static GeneralName email(const std::string& address);
    static GeneralName dns(const std::string& name);
    static GeneralName directory(const Name& name);
    static GeneralName uri(const std::string& text);
    static GeneralName ip(const std::string& textOrOctets); ///< text, or octets of any count that is no address text
    static GeneralName registeredId(const std::string& oid);
    static GeneralName raw(Bytes element);
};
/// GeneralNames: a SEQUENCE of them.
Bytes generalNames(const std::vector<GeneralName>& names);

/// A point in time as certificates and lists write it.
struct Time {
    Bytes der;
    /// UTCTime up to 2049, else GeneralizedTime. Seconds since 1970, UTC.
    static Time at(std::int64_t seconds);
    static Time fromNow(std::int64_t seconds);
    /// The text as it stands, proper or not: "260101000000Z", "2601010000Z", "20260101000000.5+0100", "".
    static Time utc(const std::string& text);
    static Time generalized(const std::string& text);
};

/// An extension: `value` is what goes into its OCTET STRING.
struct Extension {
    std::string oid;
    Bytes value;
    bool critical = false;
    std::optional<Bytes> rawOid{}; ///< content octets that replace `oid`
};

/// A distribution point name: a full name, or one relative to the issuer (the first component of `relative`).
struct DistributionPointName {
    std::vector<GeneralName> full{};
    std::optional<Name> relative{};
};

/// One place where a list is found.
struct DistributionPoint {
    std::optional<DistributionPointName> name{};
    std::optional<Bytes> reasons{}; ///< bytes of the bit string; empty gives an empty one
    std::vector<GeneralName> issuers{};
};
Bytes distributionPoints(const std::vector<DistributionPoint>& points);

/// The scope of a list.
struct IssuingDistributionPoint {
    std::optional<DistributionPointName> name{};
    bool onlyUser = false;
    bool onlyCa = false;
    std::optional<Bytes> reasons{}; ///< as in DistributionPoint
    bool indirect = false;
    bool onlyAttribute = false;
    [[nodiscard]] Bytes der() const;
};

/// DER of a certificate, decodable or not.
struct Certificate {
    Bytes der;
    /// A decoded copy. \throws std::runtime_error: OpenSSL does not read it
    [[nodiscard]] X509Ptr x509() const;
    [[nodiscard]] std::string pem() const;
    [[nodiscard]] std::string sha256() const; ///< lower-case hexadecimal fingerprint
};

/// DER of a revocation list, decodable or not.
struct Crl {
    Bytes der;
    /// A decoded copy. \throws std::runtime_error: OpenSSL does not read it
    [[nodiscard]] CrlPtr crl() const;
    [[nodiscard]] std::string pem() const;
    [[nodiscard]] std::string sha256() const;
};

/// A certificate with its key, and what is needed to issue under it.
struct Identity {
    Key key;
    Certificate certificate;
    Name name;
    std::string serial;
    Bytes keyIdentifier;
};

/// What a certificate shall say. Unset members leave their extension out, but for the two key identifiers.
struct CertificateRequest {
    Name subject{};
    Key key{};                        ///< the subject's key
    const Identity* issuer = nullptr; ///< null: self-signed
    std::optional<Name> issuerName{}; ///< replaces the issuer's name
    std::optional<Key> signingKey{};  ///< replaces the issuer's key: the signature is then a wrong one
    std::string serial = "1";         ///< hexadecimal, "-" for a negative number, any length
    Time notBefore = Time::fromNow(-86400);
    Time notAfter = Time::fromNow(3650L * 86400);
    int version = 3;                  ///< 1 has no version field and no extensions; other numbers stand as given
    std::optional<bool> ca{};         ///< basic constraints with this flag
    std::optional<long> pathLength{}; ///< in the basic constraints
    bool basicConstraintsCritical = true;
    std::optional<unsigned int>
        keyUsage{}; ///< OpenSSL's bits: 0x80 digitalSignature ... 0x02 cRLSign, 0x8000 decipherOnly
    std::vector<std::string> extendedKeyUsage{}; ///< object identifiers or names ("emailProtection")
    std::vector<GeneralName> alternativeNames{};
    std::vector<GeneralName> issuerAlternativeNames{};
    bool subjectKeyIdentifier = true;
    std::optional<Bytes> subjectKeyIdentifierValue{}; ///< replaces SHA-1 of the key
    bool authorityKeyIdentifier = true;               ///< for issued certificates; self-signed ones want a value
    std::optional<Bytes> authorityKeyIdentifierValue{};
    bool authorityIssuerAndSerial = false; ///< issuer's issuer and serial number in the authority key identifier too
    std::vector<DistributionPoint> crlDistributionPoints{};
    std::vector<std::string> ocsp{};      ///< authority information access
    std::vector<std::string> caIssuers{}; ///< authority information access
    std::vector<Extension> extensions{};  ///< in this order, after the others
    std::string digest = "SHA256";
};

/// Issues a certificate: a new self-signed one, or one signed by `request.issuer`.
Identity issue(const CertificateRequest& request);

/// One entry of a list.
struct Revoked {
    std::string serial;
    Time date = Time::fromNow(-3600);
    std::optional<int> reason{};
    std::optional<Name> certificateIssuer{}; ///< of indirect lists
    std::vector<Extension> extensions{};
};

/// What a list shall say.
struct CrlRequest {
    const Identity* issuer = nullptr;
    std::optional<Name> issuerName{};
    std::vector<Revoked> revoked{};
    std::size_t numbered = 0; ///< adds this many entries with the serials 1, 2, 3, ...; 100,000 take a moment
    Time thisUpdate = Time::fromNow(-3600);
    std::optional<Time> nextUpdate = Time::fromNow(7L * 86400);
    int version = 2;                        ///< 1 has no version field and no extensions
    std::optional<std::string> crlNumber{}; ///< hexadecimal
    std::optional<std::string> deltaBase{}; ///< hexadecimal: makes it a delta list
    std::optional<IssuingDistributionPoint> scope{};
    bool authorityKeyIdentifier = true;
    std::optional<Bytes> authorityKeyIdentifierValue{};
    std::vector<DistributionPoint> freshest{};
    std::vector<Extension> extensions{};
    std::string digest = "SHA256";
};

/// Issues a list signed by `request.issuer`.
Crl issueList(const CrlRequest& request);

/// The value of a crossCertificatePair attribute (RFC 4523, 2.3): forward under [0], reverse under [1]; null leaves one
/// out.
Bytes crossPair(const Certificate* forward, const Certificate* reverse);

/// A ContentInfo (RFC 5652 section 3) of any type: `typeOctets` are the content octets of the object identifier, as
/// they stand (arcs that wrap 32 bits included); `content` is the element inside [0], left out when unset.
Bytes contentInfo(const Bytes& typeOctets, const std::optional<Bytes>& content);
/// Decodes it. \throws std::runtime_error: OpenSSL does not read it
Pkcs7Ptr pkcs7(const Bytes& der);

} // namespace norvauthority
