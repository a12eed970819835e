#include "Support.h"

#include <openssl/err.h>

#include <array>
#include <cstdio>
#include <stdexcept>

namespace norvauthority {

Bytes extension(const Extension& request) {
    std::vector<Bytes> parts{request.rawOid ? der::rawOid(*request.rawOid) : der::oid(request.oid)};
    if (request.critical)
        parts.push_back(der::boolValue(true));
    parts.push_back(der::octetString(request.value));
    return der::sequence(parts);
}

Bytes keyIdentifierExtension(const Bytes& identifier, const Identity* issuer) {
    std::vector<Bytes> parts{der::element(der::context(0), identifier)};
    if (issuer != nullptr) {
        const X509Ptr x509 = issuer->certificate.x509();
        unsigned char* start = nullptr;
        const int length = i2d_X509_NAME(X509_get_issuer_name(x509.get()), &start);
        if (length < 0)
            fail("encoding a name");
        const Name name = Name::fromDer(Bytes(start, start + length));
        OPENSSL_free(start);
        parts.push_back(der::element(der::contextConstructed(1), GeneralName::directory(name).der));
        Bytes serial = der::integer(issuer->serial);
        serial[0] = der::context(2);
        parts.push_back(serial);
    }
    return extension({.oid = "2.5.29.35", .value = der::sequence(parts)});
}

namespace {

Bytes distributionPointName(const DistributionPointName& name) {
    if (name.relative) {
        Bytes component = name.relative->firstComponent();
        component[0] = der::contextConstructed(1);
        return component;
    }
    Bytes names = generalNames(name.full);
    names[0] = der::contextConstructed(0);
    return names;
}

Bytes reasonBits(unsigned int number, const Bytes& bits) {
    Bytes encoded = der::bitString(bits);
    encoded[0] = der::context(number);
    return encoded;
}

Bytes basicConstraints(const CertificateRequest& request) {
    std::vector<Bytes> parts;
    if (request.ca.value_or(false))
        parts.push_back(der::boolValue(true));
    if (request.pathLength) {
        std::array<char, 32> digits{};
        const long length = *request.pathLength;
        static_cast<void>(std::snprintf(digits.data(), digits.size(), "%s%lx", length < 0 ? "-" : "",
                                        static_cast<unsigned long>(length < 0 ? -length : length)));
        parts.push_back(der::integer(digits.data()));
    }
    return der::sequence(parts);
}

Bytes accessDescriptions(const CertificateRequest& request) {
    std::vector<Bytes> parts;
    for (const std::string& place : request.ocsp)
        parts.push_back(der::sequence({der::oid("1.3.6.1.5.5.7.48.1"), GeneralName::uri(place).der}));
    for (const std::string& place : request.caIssuers)
        parts.push_back(der::sequence({der::oid("1.3.6.1.5.5.7.48.2"), GeneralName::uri(place).der}));
    return der::sequence(parts);
}

void addIdentifiers(const CertificateRequest& request, const Bytes& own, std::vector<Bytes>& extensions) {
    if (request.subjectKeyIdentifier)
        extensions.push_back(extension({.oid = "2.5.29.14", .value = der::octetString(own)}));
    if (!request.authorityKeyIdentifier || (request.issuer == nullptr && !request.authorityKeyIdentifierValue))
        return;
    const Bytes identifier =
        request.authorityKeyIdentifierValue ? *request.authorityKeyIdentifierValue : request.issuer->keyIdentifier;
    extensions.push_back(
        keyIdentifierExtension(identifier, request.authorityIssuerAndSerial ? request.issuer : nullptr));
}

std::vector<Bytes> certificateExtensions(const CertificateRequest& request, const Bytes& ownIdentifier) {
    std::vector<Bytes> all;
    const auto add = [&all](const char* oid, const Bytes& value, bool critical = false) {
        all.push_back(extension({.oid = oid, .value = value, .critical = critical}));
    };
    if (request.ca || request.pathLength)
        add("2.5.29.19", basicConstraints(request), request.basicConstraintsCritical);
    if (request.keyUsage)
        add("2.5.29.15", der::namedBits(*request.keyUsage), true);
    if (!request.extendedKeyUsage.empty()) {
        std::vector<Bytes> purposes;
        for (const std::string& purpose : request.extendedKeyUsage)
            purposes.push_back(der::oid(purpose));
        add("2.5.29.37", der::sequence(purposes));
    }
    if (!request.alternativeNames.empty())
        add("2.5.29.17", generalNames(request.alternativeNames));
    if (!request.issuerAlternativeNames.empty())
        add("2.5.29.18", generalNames(request.issuerAlternativeNames));
    addIdentifiers(request, ownIdentifier, all);
    if (!request.crlDistributionPoints.empty())
        add("2.5.29.31", distributionPoints(request.crlDistributionPoints));
    if (!request.ocsp.empty() || !request.caIssuers.empty())
        add("1.3.6.1.5.5.7.1.1", accessDescriptions(request));
    for (const Extension& extra : request.extensions)
        all.push_back(extension(extra));
    return all;
}

Bytes versionField(int version) {
    std::array<char, 16> digits{};
    static_cast<void>(std::snprintf(digits.data(), digits.size(), "%x", static_cast<unsigned int>(version - 1)));
    return der::integer(digits.data());
}

std::vector<Bytes> listExtensions(const CrlRequest& request) {
    std::vector<Bytes> all;
    if (request.authorityKeyIdentifier)
        all.push_back(keyIdentifierExtension(
            request.authorityKeyIdentifierValue.value_or(request.issuer->keyIdentifier), nullptr));
    if (request.crlNumber)
        all.push_back(extension({.oid = "2.5.29.20", .value = der::integer(*request.crlNumber)}));
    if (request.deltaBase)
        all.push_back(extension({.oid = "2.5.29.27", .value = der::integer(*request.deltaBase), .critical = true}));
    if (request.scope)
        all.push_back(extension({.oid = "2.5.29.28", .value = request.scope->der(), .critical = true}));
    if (!request.freshest.empty())
        all.push_back(extension({.oid = "2.5.29.46", .value = distributionPoints(request.freshest)}));
    for (const Extension& extra : request.extensions)
        all.push_back(extension(extra));
    return all;
}

Bytes entry(const Revoked& revoked) {
    std::vector<Bytes> extensions;
    if (revoked.reason)
        extensions.push_back(
            extension({.oid = "2.5.29.21",
                       .value = der::element(der::enumeratedTag, {static_cast<unsigned char>(*revoked.reason)})}));
    if (revoked.certificateIssuer)
        extensions.push_back(extension({.oid = "2.5.29.29",
                                        .value = generalNames({GeneralName::directory(*revoked.certificateIssuer)}),
                                        .critical = true}));
    for (const Extension& extra : revoked.extensions)
        extensions.push_back(extension(extra));
    std::vector<Bytes> parts{der::integer(revoked.serial), revoked.date.der};
    if (!extensions.empty())
        parts.push_back(der::sequence(extensions));
    return der::sequence(parts);
}

Bytes entries(const CrlRequest& request) {
    Bytes all;
    for (const Revoked& revoked : request.revoked)
        der::append(all, entry(revoked));
    const Bytes date = Time::fromNow(-3600).der;
    for (std::size_t number = 1; number <= request.numbered; ++number) {
        std::array<char, 32> digits{};
        static_cast<void>(std::snprintf(digits.data(), digits.size(), "%zx", number));
        der::append(all, der::sequence({der::integer(digits.data()), date}));
    }
    return all;
}

} // namespace

Bytes distributionPoints(const std::vector<DistributionPoint>& points) {
    std::vector<Bytes> all;
    for (const DistributionPoint& point : points) {
        std::vector<Bytes> parts;
        if (point.name)
            parts.push_back(der::element(der::contextConstructed(0), distributionPointName(*point.name)));
        if (point.reasons)
            parts.push_back(reasonBits(1, *point.reasons));
        if (!point.issuers.empty()) {
            parts.push_back(generalNames(point.issuers));
            parts.back()[0] = der::contextConstructed(2);
        }
        all.push_back(der::sequence(parts));
    }
    return der::sequence(all);
}

Bytes IssuingDistributionPoint::der() const {
    std::vector<Bytes> parts;
    const auto flag = [&parts](unsigned int number, bool set) {
        if (set)
            parts.push_back(der::element(der::context(number), {0xFF}));
    };
    if (name)
        parts.push_back(der::element(der::contextConstructed(0), distributionPointName(*name)));
    flag(1, onlyUser);
    flag(2, onlyCa);
    if (reasons)
        parts.push_back(reasonBits(3, *reasons));
    flag(4, indirect);
    flag(5, onlyAttribute);
    return der::sequence(parts);
}

X509Ptr Certificate::x509() const {
    const unsigned char* at = der.data();
    return X509Ptr(require(d2i_X509(nullptr, &at, static_cast<long>(der.size())), "reading a certificate"));
}

std::string Certificate::pem() const {
    return norvauthority::pem("CERTIFICATE", der);
}

std::string Certificate::sha256() const {
    return toHex(digest("SHA256", der));
}

CrlPtr Crl::crl() const {
    const unsigned char* at = der.data();
    return CrlPtr(require(d2i_X509_CRL(nullptr, &at, static_cast<long>(der.size())), "reading a list"));
}

std::string Crl::pem() const {
    return norvauthority::pem("X509 CRL", der);
}

std::string Crl::sha256() const {
    return toHex(digest("SHA256", der));
}

Identity issue(const CertificateRequest& request) {
    const Key key = request.key ? request.key : Key::rsa();
    const Key signer = request.signingKey ? *request.signingKey : request.issuer != nullptr ? request.issuer->key : key;
    const Name issuer = request.issuerName          ? *request.issuerName
                        : request.issuer != nullptr ? request.issuer->name
                                                    : request.subject;
    const Bytes identifier = request.subjectKeyIdentifierValue.value_or(key.identifier());

    std::vector<Bytes> parts;
    if (request.version != 1)
        parts.push_back(der::element(der::contextConstructed(0), versionField(request.version)));
    parts.insert(parts.end(), {der::integer(request.serial), signatureAlgorithm(signer, request.digest), issuer.der(),
                               der::sequence({request.notBefore.der, request.notAfter.der}), request.subject.der(),
                               key.publicDer()});
    if (request.version != 1) {
        const std::vector<Bytes> extensions = certificateExtensions(request, identifier);
        if (!extensions.empty())
            parts.push_back(der::element(der::contextConstructed(3), der::sequence(extensions)));
    }
    return {key,
            {signedStructure(der::sequence(parts), signer, request.digest)},
            request.subject,
            request.serial,
            identifier};
}

Crl issueList(const CrlRequest& request) {
    if (request.issuer == nullptr)
        throw std::invalid_argument("authority: a list needs an issuer");
    const Key& signer = request.issuer->key;
    std::vector<Bytes> parts;
    if (request.version != 1)
        parts.push_back(versionField(request.version));
    parts.insert(parts.end(), {signatureAlgorithm(signer, request.digest),
                               request.issuerName.value_or(request.issuer->name).der(), request.thisUpdate.der});
    if (request.nextUpdate)
        parts.push_back(request.nextUpdate->der);
    const Bytes revoked = entries(request);
    if (!revoked.empty())
        parts.push_back(der::element(der::sequenceTag, revoked));
    if (request.version != 1) {
        const std::vector<Bytes> extensions = listExtensions(request);
        if (!extensions.empty())
            parts.push_back(der::element(der::contextConstructed(0), der::sequence(extensions)));
    }
    return {signedStructure(der::sequence(parts), signer, request.digest)};
}

Bytes crossPair(const Certificate* forward, const Certificate* reverse) {
    std::vector<Bytes> parts;
    if (forward != nullptr)
        parts.push_back(der::element(der::contextConstructed(0), forward->der));
    if (reverse != nullptr)
        parts.push_back(der::element(der::contextConstructed(1), reverse->der));
    return der::sequence(parts);
}

Bytes contentInfo(const Bytes& typeOctets, const std::optional<Bytes>& content) {
    std::vector<Bytes> parts{der::rawOid(typeOctets)};
    if (content)
        parts.push_back(der::element(der::contextConstructed(0), *content));
    return der::sequence(parts);
}

Pkcs7Ptr pkcs7(const Bytes& der) {
    const unsigned char* at = der.data();
    return Pkcs7Ptr(require(d2i_PKCS7(nullptr, &at, static_cast<long>(der.size())), "reading a CMS structure"));
}

} // namespace norvauthority
