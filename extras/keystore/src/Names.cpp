#include "Names.h"

#include "OpenSsl.h"
#include "Pem.h"

#include <openssl/asn1.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

using Octets = std::string_view;

const unsigned char* bytesOf(Octets octets) {
    return reinterpret_cast<const unsigned char*>(octets.data());
}

Octets octetsOf(const unsigned char* bytes, std::size_t length) {
    return {reinterpret_cast<const char*>(bytes), length};
}

/// An element of definite length.
struct Element {
    int tag = 0;
    int tagClass = 0;
    Octets content{};
    Octets whole{};

    [[nodiscard]] bool is(int wanted, int wantedClass = V_ASN1_UNIVERSAL) const {
        return tag == wanted && tagClass == wantedClass;
    }
};

/// Takes the next element off; nothing at the end or when there is none that fits.
std::optional<Element> next(Octets& rest) {
    constexpr int malformed = 0x80;
    constexpr int indefinite = 0x01;
    const unsigned char* at = bytesOf(rest);
    long length = 0;
    Element element;
    if (rest.empty()) {
        return std::nullopt;
    }
    const int kind = ASN1_get_object(&at, &length, &element.tag, &element.tagClass, static_cast<long>(rest.size()));
    if ((kind & (malformed | indefinite)) != 0) {
        return std::nullopt;
    }
    const auto before = static_cast<std::size_t>(at - bytesOf(rest));
    element.content = rest.substr(before, static_cast<std::size_t>(length));
    element.whole = rest.substr(0, before + element.content.size());
    rest.remove_prefix(element.whole.size());
    return element;
}

/// The octets of a number that is not negative, without what means nothing.
std::string magnitude(Octets octets) {
    return std::string(octets.substr(std::min(octets.find_first_not_of('\0'), octets.size())));
}

/// By which a name is filed; equal for names that OpenSSL takes for equal.
unsigned long hashOf(const X509_NAME* name) {
    int done = 0;
    const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &done);
    return done == 1 ? hash : 0;
}

std::string filed(unsigned long issuer, const std::string& serial) {
    std::string key(sizeof issuer, '\0');
    std::memcpy(key.data(), &issuer, sizeof issuer);
    return key + serial;
}

std::optional<unsigned long> issuerHash(Octets encoded, IssuerHashes& hashes) {
    std::string key(encoded);
    if (const auto known = hashes.find(key); known != hashes.end()) {
        return known->second;
    }
    const unsigned char* at = bytesOf(encoded);
    const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> name(
        d2i_X509_NAME(nullptr, &at, static_cast<long>(encoded.size())), X509_NAME_free);
    if (!name) {
        return std::nullopt;
    }
    return hashes.emplace(std::move(key), hashOf(name.get())).first->second;
}

/// The key identifier among encoded extensions: empty without one, nothing when one of them is not as it should be.
std::optional<std::string> keyIdentifierIn(Octets extensions) {
    constexpr Octets wanted = "\x55\x1D\x0E"; // 2.5.29.14
    const auto all = next(extensions);
    if (!all || !all->is(V_ASN1_SEQUENCE)) {
        return std::nullopt;
    }
    for (Octets rest = all->content; !rest.empty();) {
        const auto extension = next(rest);
        if (!extension) {
            return std::nullopt;
        }
        Octets members = extension->content;
        const auto type = next(members);
        auto value = next(members);
        if (value && value->is(V_ASN1_BOOLEAN)) {
            value = next(members);
        }
        if (!type || !value || !value->is(V_ASN1_OCTET_STRING)) {
            return std::nullopt;
        }
        if (type->content == wanted) {
            Octets inside = value->content;
            const auto identifier = next(inside);
            return identifier && identifier->is(V_ASN1_OCTET_STRING) ? std::optional(std::string(identifier->content))
                                                                     : std::nullopt;
        }
    }
    return std::string();
}

} // namespace

std::optional<std::string> issuerAndSerial(const X509_NAME* issuer, const ASN1_INTEGER* serial) {
    if (issuer == nullptr || serial == nullptr || ASN1_STRING_type(serial) == V_ASN1_NEG_INTEGER) {
        return std::nullopt;
    }
    const QuietQuestion quiet;
    return filed(hashOf(issuer), magnitude(octetsOf(ASN1_STRING_get0_data(serial),
                                                    static_cast<std::size_t>(ASN1_STRING_length(serial)))));
}

CertificateNames namesOf(const RefCertificate& certificate) {
    CertificateNames names;
    X509* const x509 = certificate;
    names.issuerAndSerial =
        issuerAndSerial(X509_get_issuer_name(x509), X509_get0_serialNumber(x509)).value_or(std::string());
    if (const ASN1_OCTET_STRING* identifier = X509_get0_subject_key_id(x509)) {
        names.keyIdentifier =
            octetsOf(ASN1_STRING_get0_data(identifier), static_cast<std::size_t>(ASN1_STRING_length(identifier)));
    }
    return names;
}

std::optional<CertificateNames> namesIn(const Buffer& pem, IssuerHashes& hashes) {
    const QuietQuestion quiet;
    const auto der = firstCertificate(pem);
    if (!der) {
        return std::nullopt;
    }
    Octets rest = octetsOf(der->data(), der->length());
    const auto certificate = next(rest);
    rest = certificate ? certificate->content : Octets();
    const auto toBeSigned = next(rest);
    rest = toBeSigned ? toBeSigned->content : Octets();
    auto serial = next(rest);
    if (serial && serial->is(0, V_ASN1_CONTEXT_SPECIFIC)) { // the version
        serial = next(rest);
    }
    static_cast<void>(next(rest)); // the algorithm of the signature
    const auto issuer = next(rest);
    if (!serial || !serial->is(V_ASN1_INTEGER) || serial->content.empty() ||
        (bytesOf(serial->content)[0] & 0x80U) != 0 || !issuer) {
        return std::nullopt;
    }
    const auto hash = issuerHash(issuer->whole, hashes);
    if (!hash) {
        return std::nullopt;
    }
    CertificateNames names{filed(*hash, magnitude(serial->content)), {}};
    while (const auto member = next(rest)) {
        if (member->is(3, V_ASN1_CONTEXT_SPECIFIC)) {
            const auto identifier = keyIdentifierIn(member->content);
            if (!identifier) {
                return std::nullopt;
            }
            names.keyIdentifier = *identifier;
        }
    }
    return names;
}

} // namespace Norvane::Crypto::NVX509::keystore
