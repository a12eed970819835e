#include "HostileInputs.h"

#include "HostileMails.h"
#include "HostileMessages.h"

#include "EnvelopeKey.h"

#include "support/Costly.h"

#include "recognise/DerAndPem.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/BIO.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/CRLDistributionPoint.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/PKCS12.h>

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>

#include <stdexcept>
#include <string>

using namespace norvauthority;
using Norvane::Buffer;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;

namespace fuzz {

std::string repeatedText(const std::string& text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

namespace {

Buffer bufferOf(const Bytes& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), false};
}
Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}

const Key& anyKey() {
    static const Key key = Key::ec();
    return key;
}

// Certificates and lists

Prepared reading(const Bytes& certificate) {
    return prepared(certificate.size(), [der = bufferOf(certificate)] {
        const auto read = NVX509::CertificateFactory().readDER(der);
        if (!read.isNull()) {
            read->warm();
            static_cast<void>(read->issuedBy(read, true));
        }
    });
}

Prepared relativePointsOfALongName(std::size_t count) {
    return reading(norvtest::relativePoints(count, count, anyKey()).der);
}

std::vector<GeneralName> uris(const std::string& beginning, std::size_t count) {
    std::vector<GeneralName> names;
    for (std::size_t i = 0; i < count; ++i) {
        names.push_back(GeneralName::uri(beginning + std::to_string(100000 + i)));
    }
    return names;
}

Prepared manyGeneralNames(std::size_t count) {
    return reading(
        issue({.subject = {{"CN", "x"}}, .key = anyKey(), .alternativeNames = uris("a", count)}).certificate.der);
}

Prepared comparedPoints(std::size_t count) {
    const auto points = [count](const char* beginning) {
        return distributionPoints({{.name = DistributionPointName{.full = uris(beginning, count)}}});
    };
    const auto decoded = [](const Bytes& der) {
        return NVX509::RefCRLDistributionPoints(der.data(), static_cast<unsigned int>(der.size()));
    };
    const Bytes mine = points("a");
    const Bytes theirs = points("b");
    return prepared(mine.size() + theirs.size(), [left = decoded(mine), right = decoded(theirs)] {
        static_cast<void>(left->distributionPoints().front()->distributionPointName() ==
                          right->distributionPoints().front()->distributionPointName());
    });
}

Prepared longList(std::size_t entries) {
    static const Identity authority =
        issue({.subject = {{"CN", "CA"}}, .key = anyKey(), .ca = true, .keyUsage = 0x06U});
    const Bytes der = issueList({.issuer = &authority, .numbered = entries}).der;
    return prepared(der.size(), [der = bufferOf(der)] {
        const auto list = NVX509::CertificateRevocationListFactory().readDER(der);
        list->warm();
    });
}

Prepared nested(std::size_t levels) {
    Bytes der;
    for (std::size_t i = 0; i < levels; ++i) {
        der.insert(der.end(), {0x30, 0x80});
    }
    return reading(der);
}

// Structures

Prepared decoding(const Bytes& structure) {
    return prepared(structure.size(), [der = bufferOf(structure)] {
        Norvane::MemoryMediaIn in(der);
        const CMS::RefContentInfo decoded(in);
        const CMS::SignedData content = CMS::signedData(decoded);
        for (const auto& certificate : content.certificates()) {
            certificate->warm();
        }
    });
}

Prepared explicitCurves(std::size_t count) {
    return decoding(
        norvtest::certificatesOnly(std::vector<Bytes>(count, norvtest::explicitIdentity().certificate.der)));
}

Prepared certificatesInAStructure(std::size_t count) {
    const Bytes certificate = issue({.subject = {{"CN", "x"}}, .key = anyKey()}).certificate.der;
    return decoding(norvtest::certificatesOnly(std::vector<Bytes>(count, certificate)));
}

/// An RSA key whose private half nobody has; the numbers are of that many bits.
Key publicRsa(std::size_t modulusBits, std::size_t exponentBits) {
    const auto number = [](std::size_t bits) { return der::integer("7" + std::string(bits / 4 - 2, '5') + "7"); };
    const Bytes key = der::sequence({number(modulusBits), number(exponentBits)});
    const Bytes info =
        der::sequence({der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()}), der::bitString(key)});
    const unsigned char* at = info.data();
    EVP_PKEY* decoded = d2i_PUBKEY(nullptr, &at, static_cast<long>(info.size()));
    if (decoded == nullptr) {
        throw std::runtime_error("no RSA key");
    }
    const Key result = Key::of(decoded);
    EVP_PKEY_free(decoded);
    return result;
}

/// A structure of so many signers under each of so many certificates of their name, whose keys are of that size.
Prepared signersTimesCertificates(std::size_t count, std::size_t modulusBits, std::size_t exponentBits) {
    const Identity signer = issue({.subject = {{"CN", "signer"}}, .key = envelopeIdentity().key});
    const X509Ptr certificate = signer.certificate.x509();
    PKCS7* structure = PKCS7_sign(certificate.get(), signer.key.get(), nullptr, nullptr,
                                  PKCS7_DETACHED | PKCS7_BINARY | PKCS7_STREAM | PKCS7_NOCERTS);
    BIO* body = BIO_new_mem_buf("body", 4); // a body that differs is told from the attributes alone
    PKCS7_final(structure, body, PKCS7_BINARY);
    BIO_free(body);
    auto* const original = sk_PKCS7_SIGNER_INFO_value(structure->d.sign->signer_info, 0);
    const Bytes wrong(modulusBits / 8, 1); // OpenSSL asks for the modulus' length before it computes
    ASN1_OCTET_STRING_set(original->enc_digest, wrong.data(), static_cast<int>(wrong.size()));
    for (std::size_t i = 1; i < count; ++i) {
        PKCS7_add_signer(structure, reinterpret_cast<PKCS7_SIGNER_INFO*>(
                                        ASN1_item_dup(ASN1_ITEM_rptr(PKCS7_SIGNER_INFO), original)));
    }
    const Key key = publicRsa(modulusBits, exponentBits);
    for (std::size_t i = 0; i < count; ++i) {
        const Identity alike = issue({.subject = {{"CN", "alike" + std::to_string(i)}},
                                      .key = key,
                                      .issuerName = signer.name,
                                      .signingKey = anyKey(),
                                      .serial = signer.serial});
        PKCS7_add_certificate(structure, alike.certificate.x509().get());
    }
    unsigned char* bytes = nullptr;
    const int length = i2d_PKCS7(structure, &bytes);
    const Buffer der(bytes, static_cast<unsigned int>(length), false);
    OPENSSL_free(bytes);
    PKCS7_free(structure);
    return prepared(der.length(), [der] {
        Norvane::MemoryMediaIn in(der);
        Norvane::MemoryMediaIn given(std::string("body"));
        static_cast<void>(CMS::verifySignatures(CMS::RefContentInfo(in), given));
    });
}

/// A message for one recipient, named so many times, whose content of that many octets times 100 decrypts to no padding.
Prepared repeatedRecipients(std::size_t count) {
    static const NVX509::RefKeyStore keys = envelopeStore();
    const X509Ptr certificate = envelopeIdentity().certificate.x509();
    STACK_OF(X509)* recipients = sk_X509_new_null();
    for (std::size_t i = 0; i < count; ++i) {
        sk_X509_push(recipients, certificate.get());
    }
    const std::string body(100 * count, 'b');
    BIO* source = BIO_new_mem_buf(body.data(), static_cast<int>(body.size()));
    CMS_ContentInfo* structure = CMS_encrypt(recipients, source, EVP_aes_128_cbc(), CMS_BINARY);
    unsigned char* bytes = nullptr;
    const int length = i2d_CMS_ContentInfo(structure, &bytes);
    bytes[length - 17] ^= 1U; // the last octet of padding
    const Buffer der(bytes, static_cast<unsigned int>(length), false);
    OPENSSL_free(bytes);
    CMS_ContentInfo_free(structure);
    BIO_free(source);
    sk_X509_free(recipients);
    return prepared(der.length(), [der] {
        Norvane::MemoryMediaIn in(der);
        CMS::DecrypterMediaIn decrypter(in, keys);
        Norvane::NullMediaOut out;
        decrypter.write(out);
    });
}

// Keys

Prepared iterations(std::size_t count) {
    static const Identity holder = issue({.subject = {{"CN", "x"}}, .key = anyKey()});
    PKCS12_st* structure =
        PKCS12_create("secret", "name", holder.key.get(), holder.certificate.x509().get(), nullptr, 0, 0, 1, 1, 0);
    // The MAC of another password, so that nothing is hashed for it while the structure is made.
    ASN1_INTEGER* number = nullptr;
    const ASN1_INTEGER* stated = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &stated, structure);
    if (stated == nullptr) {
        PKCS12_set_mac(structure, "other", 5, nullptr, 0, 2, nullptr);
        PKCS12_get0_mac(nullptr, nullptr, nullptr, &stated, structure);
    }
    number = const_cast<ASN1_INTEGER*>(stated);
    ASN1_INTEGER_set_uint64(number, count);
    unsigned char* bytes = nullptr;
    const int length = i2d_PKCS12(structure, &bytes);
    const Buffer der(bytes, static_cast<unsigned int>(length), false);
    OPENSSL_free(bytes);
    PKCS12_free(structure);
    return prepared(der.length(), [der] {
        Norvane::Crypto::MemoryBIO source(der);
        Norvane::Crypto::PKCS12::Store(source).read("secret");
    });
}

Bytes oddNumber(std::size_t bits) {
    return der::integer("7" + std::string(bits / 4 - 2, '5') + "7");
}

Prepared readingKey(const Bytes& key) {
    return prepared(key.size(), [der = bufferOf(key)] {
        Norvane::Crypto::PrivateKey read(nullptr);
        read.readUnattended(der, nullptr);
    });
}

Prepared dsaKey(std::size_t bits) {
    const Bytes parameters = der::sequence({oddNumber(bits), oddNumber(160), der::integer("2")});
    return readingKey(der::sequence({der::integer("0"), der::sequence({der::oid("1.2.840.10040.4.1"), parameters}),
                                     der::octetString(oddNumber(bits))}));
}

Prepared rsaPrimes(std::size_t count) {
    std::vector<Bytes> parts{der::integer("1"), oddNumber(2048)};
    parts.insert(parts.end(), 7, der::integer("3"));
    parts.push_back(
        der::sequence(std::vector<Bytes>(count, der::sequence({oddNumber(64), der::integer("3"), der::integer("3")}))));
    return readingKey(der::sequence(parts));
}

// Texts and files

Prepared longIdentifier(std::size_t digits) {
    return prepared(digits, [text = "1.2." + std::string(digits, '9')] {
        static_cast<void>(Norvane::Crypto::ASN1::RefObjectIdentifier(text)->asString());
        static_cast<void>(NVX509::DistinguishedName(text + "=x,C=US").asString());
    });
}

Prepared longName(std::size_t attributes) {
    std::string text = "CN=x";
    for (std::size_t i = 0; i < attributes; ++i) {
        text += ",OU=unit";
    }
    return prepared(text.size(), [text] {
        const NVX509::DistinguishedName name(text);
        static_cast<void>(name.asString());
        static_cast<void>(name.listRDN());
        static_cast<void>(name.hash());
        static_cast<void>(displayName(name));
    });
}

Prepared file(const std::string& content) {
    return prepared(content.size(),
                    [content = bufferOf(content)] { static_cast<void>(norvcrypt::objectsIn(content)); });
}

const std::string emptySequence("\x30\x00", 2);

/// Each is a content type without content.
Prepared smallStructures(std::size_t count) {
    return file(repeatedText(std::string("\x30\x05\x06\x03\x2a\x03\x04", 7), count));
}

} // namespace

// Growth is linear to the exponent 1; what sorts is a little above, and what a constant hides is below. Where the exponent
// may be more, the size is bounded: beyond the bound stands in a row of its own.
const std::vector<Case>& hostileInputs() {
    static const std::vector<Case> all = [] {
        std::vector<Case> cases{
            {"certificate, relative points of a long name", "points, entries", 250, 1.2, relativePointsOfALongName},
            // Both of the product; 16,384 octets of points times name are let in.
            {"the same, within what is let in", "points, entries", 8, 2, relativePointsOfALongName},
            {"certificate, general names", "names", 1000, 1.2, manyGeneralNames},
            {"distribution points that are compared", "names on each side", 1000, 1.2, comparedPoints},
            {"revocation list", "entries", 1000, 1.2, longList},
            {"elements in one another", "levels", 10000, 1.2, nested},
            {"structure, keys on explicit curves", "certificates", 100, 1.2, explicitCurves},
            {"structure, certificates", "certificates", 500, 1.2, certificatesInAStructure},
            {"the same, beyond the limit", "certificates", 3000, 1.2, certificatesInAStructure},
            {"signed, huge exponents", "signers, certificates", 25, 1.2,
             [](std::size_t count) { return signersTimesCertificates(count, 3072, 3068); }},
            {"signed, the largest keys that are used", "signers, certificates", 25, 1.2,
             [](std::size_t count) { return signersTimesCertificates(count, 16384, 64); }},
            {"encrypted, one recipient repeated", "recipients, 100 octets", 250, 1.2, repeatedRecipients},
            {"PKCS#12, iterations", "iterations", 25000, 1.2, iterations},
            {"the same, beyond the limit", "iterations", 60'000'000, 1.2, iterations},
            {"private key, DSA", "bits", 2400, 3.2, dsaKey},
            {"the same, beyond the limit", "bits", 12000, 1.2, dsaKey},
            {"private key, RSA of many primes", "primes", 200, 2.2, rsaPrimes},
            {"the same, beyond the limit", "primes", 2000, 1.2, rsaPrimes},
            {"object identifier in a text", "digits", 64, 2.2, longIdentifier},
            {"the same, beyond the limit", "digits", 10000, 1.2, longIdentifier},
            {"name in a text", "attributes", 500, 1.2, longName},
            {"file, blanks behind an object", "blanks", 5000, 1.2,
             [](std::size_t count) { return file(emptySequence + std::string(count, ' ') + "x"); }},
            {"file, empty objects", "objects", 5000, 1.2,
             [](std::size_t count) { return file(repeatedText(emptySequence, count)); }},
            {"file, structures of seven octets", "structures", 5000, 1.2, smallStructures},
            {"the same, beyond the limit", "structures", 310000, 1.2, smallStructures},
            {"file, damaged PEM blocks", "blocks", 500, 1.2,
             [](std::size_t count) {
                 return file(repeatedText("-----BEGIN CMS-----\n!\n-----END CMS-----\n", count));
             }},
        };
        const std::vector<Case> messages = hostileMessages();
        cases.insert(cases.end(), messages.begin(), messages.end());
        const std::vector<Case> mails = hostileMails();
        cases.insert(cases.end(), mails.begin(), mails.end());
        const std::vector<Case> writing = hostileWriting();
        cases.insert(cases.end(), writing.begin(), writing.end());
        return cases;
    }();
    return all;
}

} // namespace fuzz
