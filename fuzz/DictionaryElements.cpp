// Elements that the readers of certificates, lists, keys and messages know.
#include "Dictionary.h"

#include <authority/Authority.h>

namespace fuzz {

namespace {

namespace der = norvauthority::der;
using norvauthority::GeneralName;

/// By OpenSSL's names, and by numbers where it has none.
const std::vector<const char*> identifiers{
    // digests
    "MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "SHA512-256", "SHA3-256", "SHA3-512", "SHAKE256",
    "RIPEMD160", "BLAKE2b512", "SM3",
    // keys and signatures
    "rsaEncryption", "RSASSA-PSS", "RSAES-OAEP", "MGF1", "1.2.840.113549.1.1.9", "RSA-MD5", "RSA-SHA1", "RSA-SHA256",
    "RSA-SHA384", "RSA-SHA512", "id-rsassa-pkcs1-v1_5-with-sha3-256", "id-ecPublicKey", "ecdsa-with-SHA1",
    "ecdsa-with-SHA256", "ecdsa-with-SHA384", "ecdsa-with-SHA512", "prime256v1", "secp384r1", "secp521r1", "secp256k1",
    "brainpoolP256r1", "1.2.840.10045.1.1", "1.2.840.10045.1.2", "DSA", "DSA-SHA1", "dsa_with_SHA256", "ED25519",
    "ED448", "X25519", "X448", "dhKeyAgreement", "dhpublicnumber", "1.3.6.1.5.5.7.6.30", "1.2.643.7.1.1.1.1", "SM2",
    // ciphers, key wrapping, key agreement, derivation
    "DES-CBC", "DES-EDE3-CBC", "RC2-CBC", "1.2.840.113549.3.4", "AES-128-CBC", "AES-192-CBC", "AES-256-CBC",
    "id-aes128-GCM", "id-aes192-GCM", "id-aes256-GCM", "id-aes128-CCM", "CAST5-CBC", "IDEA-CBC", "id-aes128-wrap",
    "id-aes192-wrap", "id-aes256-wrap", "id-smime-alg-CMS3DESwrap", "id-alg-PWRI-KEK",
    "dhSinglePass-stdDH-sha1kdf-scheme", "dhSinglePass-stdDH-sha256kdf-scheme",
    "dhSinglePass-cofactorDH-sha256kdf-scheme", "1.2.840.113549.1.9.16.3.19", "1.2.840.113549.1.9.16.3.28", "PBKDF2",
    "PBES2", "PBMAC1", "id-scrypt", "hmacWithSHA1", "hmacWithSHA256", "hmacWithSHA512", "PBE-SHA1-3DES",
    "PBE-SHA1-RC2-40", "PBE-SHA1-RC4-128", "PBE-MD5-DES",
    // contents of messages, attributes
    "pkcs7-data", "pkcs7-signedData", "pkcs7-envelopedData", "pkcs7-digestData", "pkcs7-encryptedData",
    "1.2.840.113549.1.7.4", "id-smime-ct-authData", "id-smime-ct-authEnvelopedData", "id-smime-ct-compressedData",
    "id-smime-ct-TSTInfo", "contentType", "messageDigest", "signingTime", "countersignature", "SMIME-CAPS",
    "id-smime-aa-signingCertificate", "id-smime-aa-signingCertificateV2", "id-smime-aa-receiptRequest",
    "id-smime-aa-encrypKeyPref", "1.2.840.113549.1.9.52", "1.3.6.1.4.1.311.16.4",
    // PKCS#12, cross-certificate pairs, requests
    "1.2.840.113549.1.12.10.1.1", "1.2.840.113549.1.12.10.1.2", "1.2.840.113549.1.12.10.1.3",
    "1.2.840.113549.1.12.10.1.4", "1.2.840.113549.1.12.10.1.5", "1.2.840.113549.1.12.10.1.6", "1.2.840.113549.1.9.22.1",
    "1.2.840.113549.1.9.22.2", "1.2.840.113549.1.9.23.1", "friendlyName", "localKeyID", "2.5.4.40", "extReq",
    "challengePassword",
    // extensions
    "basicConstraints", "keyUsage", "extendedKeyUsage", "subjectKeyIdentifier", "authorityKeyIdentifier",
    "subjectAltName", "issuerAltName", "crlDistributionPoints", "freshestCRL", "issuingDistributionPoint", "crlNumber",
    "deltaCRL", "CRLReason", "invalidityDate", "certificateIssuer", "nameConstraints", "certificatePolicies",
    "anyPolicy", "policyMappings", "policyConstraints", "inhibitAnyPolicy", "authorityInfoAccess", "subjectInfoAccess",
    "nsCertType", "proxyCertInfo", "1.3.6.1.5.5.7.1.7", "1.3.6.1.5.5.7.1.8", "1.3.6.1.5.5.7.1.24", "2.5.29.9",
    "2.5.29.16", "id-qt-cps", "id-qt-unotice", "OCSP", "caIssuers", "id-on-SmtpUTF8Mailbox", "1.3.6.1.5.5.7.8.5",
    "1.3.6.1.5.5.7.8.7", "1.3.6.1.4.1.311.20.2.3", "emailProtection", "serverAuth", "clientAuth", "codeSigning",
    "anyExtendedKeyUsage",
    // attributes of names
    "CN", "O", "OU", "C", "ST", "L", "SN", "GN", "title", "serialNumber", "emailAddress", "DC", "UID", "pseudonym",
    "dnQualifier", "street", "organizationIdentifier", "unstructuredName", "jurisdictionC"};

Bytes algorithm(const char* name, const Bytes& parameters) {
    return der::sequence({der::oid(name), parameters});
}

Bytes explicitly(unsigned int number, const Bytes& element) {
    return der::element(der::contextConstructed(number), element);
}

Bytes extension(const char* name, const Bytes& value, bool critical) {
    return der::sequence({der::oid(name), der::boolValue(critical), der::octetString(value)});
}

Bytes attribute(const char* name, const Bytes& value) {
    return der::sequence({der::oid(name), der::set({value})});
}

Bytes octets(std::size_t count, unsigned char value) {
    return Bytes(count, value);
}

void addAlgorithms(std::vector<Bytes>& all) {
    const Bytes sha256 = algorithm("SHA256", der::null());
    for (const char* name : {"SHA1", "SHA256", "SHA512", "rsaEncryption", "RSA-SHA256", "hmacWithSHA256"}) {
        all.push_back(algorithm(name, der::null()));
        all.push_back(der::sequence({der::oid(name)}));
    }
    const Bytes mask = algorithm("MGF1", sha256);
    const Bytes salts = explicitly(2, der::integer("20"));
    all.push_back(algorithm("RSASSA-PSS", der::sequence({explicitly(0, sha256), explicitly(1, mask), salts})));
    all.push_back(algorithm("RSASSA-PSS", der::sequence({explicitly(2, der::integer("7fffffff"))})));
    all.push_back(algorithm("RSAES-OAEP", der::sequence({explicitly(0, sha256), explicitly(1, mask)})));
    for (const char* curve : {"prime256v1", "secp384r1", "secp521r1", "secp256k1", "brainpoolP256r1"}) {
        all.push_back(algorithm("id-ecPublicKey", der::oid(curve)));
    }
    // A curve that is spelled out.
    all.push_back(algorithm("id-ecPublicKey",
                            der::sequence({der::integer("1"), algorithm("1.2.840.10045.1.1", der::integer("17")),
                                           der::sequence({der::octetString({1}), der::octetString({1})}),
                                           der::octetString({4, 3, 10}), der::integer("1c")})));
    for (const char* cipher : {"AES-128-CBC", "AES-256-CBC"}) {
        all.push_back(algorithm(cipher, der::octetString(octets(16, 7))));
    }
    all.push_back(algorithm("DES-EDE3-CBC", der::octetString(octets(8, 7))));
    for (const char* tag : {"10", "4", "c"}) {
        all.push_back(algorithm("id-aes256-GCM", der::sequence({der::octetString(octets(12, 7)), der::integer(tag)})));
    }
    all.push_back(algorithm("dhSinglePass-stdDH-sha256kdf-scheme", algorithm("id-aes256-wrap", der::null())));
    const auto derivation = [](const char* count) {
        return algorithm("PBKDF2", der::sequence({der::octetString(octets(8, 1)), der::integer(count),
                                                  der::integer("20"), algorithm("hmacWithSHA256", der::null())}));
    };
    const Bytes cipher = algorithm("AES-256-CBC", der::octetString(octets(16, 7)));
    all.push_back(algorithm("PBES2", der::sequence({derivation("1"), cipher})));
    all.push_back(algorithm("PBES2", der::sequence({derivation("7fffffff"), cipher})));
    all.push_back(algorithm(
        "PBES2", der::sequence({algorithm("id-scrypt", der::sequence({der::octetString({1}), der::integer("4000"),
                                                                      der::integer("8"), der::integer("1")})),
                                cipher})));
    all.push_back(algorithm("PBE-SHA1-3DES", der::sequence({der::octetString(octets(8, 1)), der::integer("7ff")})));
}

void addExtensions(std::vector<Bytes>& all) {
    const Bytes names = norvauthority::generalNames(
        {GeneralName::email("alice@example.org"), GeneralName::dns("example.org"), GeneralName::ip("192.0.2.1"),
         GeneralName::uri("http://example.org/a.crl"), GeneralName::directory({{"CN", "Alice"}}),
         GeneralName::registeredId("1.2.3"),
         GeneralName::otherName("id-on-SmtpUTF8Mailbox",
                                der::element(12, norvauthority::bytes("a\xC3\xA9@example.org")))});
    norvauthority::DistributionPoint full;
    full.name = norvauthority::DistributionPointName{.full = {GeneralName::uri("http://example.org/a.crl")}};
    full.reasons = Bytes{0x60};
    full.issuers = {GeneralName::directory({{"CN", "Lists"}})};
    norvauthority::DistributionPoint relative;
    relative.name = norvauthority::DistributionPointName{.relative = norvauthority::Name{{"CN", "list"}}};
    const Bytes points = norvauthority::distributionPoints({full, relative});
    const norvauthority::IssuingDistributionPoint scope{.name = full.name, .onlyUser = true, .indirect = true};
    for (const bool critical : {false, true}) {
        all.push_back(
            extension("basicConstraints", der::sequence({der::boolValue(true), der::integer("0")}), critical));
        all.push_back(extension("basicConstraints", der::sequence({}), critical));
        all.push_back(extension("keyUsage", der::namedBits(0x06), critical));
        all.push_back(extension("keyUsage", der::namedBits(0xE0), critical));
        all.push_back(extension("extendedKeyUsage", der::sequence({der::oid("emailProtection")}), critical));
        all.push_back(extension("subjectAltName", names, critical));
        all.push_back(extension("crlDistributionPoints", points, critical));
        all.push_back(extension("issuingDistributionPoint", scope.der(), critical));
        all.push_back(extension(
            "certificatePolicies",
            der::sequence({der::sequence({der::oid("anyPolicy")}), der::sequence({der::oid("1.2.3")})}), critical));
        all.push_back(extension("policyMappings",
                                der::sequence({der::sequence({der::oid("1.2.3"), der::oid("1.2.4")})}), critical));
        all.push_back(extension("policyConstraints",
                                der::sequence({der::element(der::context(0), {0}), der::element(der::context(1), {0})}),
                                critical));
        all.push_back(extension("inhibitAnyPolicy", der::integer("0"), critical));
        all.push_back(extension("crlNumber", der::integer("7fffffffffffffff"), critical));
        all.push_back(extension("deltaCRL", der::integer("1"), critical));
        all.push_back(extension("CRLReason", der::element(der::enumeratedTag, {8}), critical));
        all.push_back(extension("1.2.3.4", der::null(), critical));
    }
    const Bytes subtree = der::sequence({GeneralName::email(".example.org").der});
    all.push_back(extension("nameConstraints", der::sequence({explicitly(0, subtree), explicitly(1, subtree)}), true));
    all.push_back(extension("authorityInfoAccess",
                            der::sequence({der::sequence({der::oid("OCSP"), GeneralName::uri("http://o/").der})}),
                            false));
    all.push_back(names);
    all.push_back(points);
}

void addAttributes(std::vector<Bytes>& all) {
    all.push_back(attribute("contentType", der::oid("pkcs7-data")));
    all.push_back(attribute("messageDigest", der::octetString(octets(32, 1))));
    all.push_back(attribute("signingTime", norvauthority::Time::utc("261122120000Z").der));
    all.push_back(attribute("signingTime", norvauthority::Time::generalized("20261122120000.5+0100").der));
    all.push_back(attribute("SMIME-CAPS", der::sequence({der::sequence({der::oid("AES-256-CBC")}),
                                                         algorithm("RC2-CBC", der::integer("28"))})));
    all.push_back(attribute("id-smime-aa-signingCertificateV2",
                            der::sequence({der::sequence({der::sequence({der::octetString(octets(32, 1))})})})));
    all.push_back(attribute("countersignature", der::sequence({})));
    all.push_back(attribute("localKeyID", der::octetString({1})));
    all.push_back(attribute("friendlyName", der::element(30, {0, 'n', 0xD8, 0})));
}

void addValues(std::vector<Bytes>& all) {
    for (const char* number : {"0", "1", "-1", "-80", "ff", "3", "7fffffff", "80000000", "ffffffff", "7fffffffffffffff",
                               "ffffffffffffffff", "10000000000000000", "10001"}) {
        all.push_back(der::integer(number));
    }
    all.push_back(der::element(der::integerTag, {}));
    all.push_back(der::element(der::integerTag, {0, 0, 1}));
    all.push_back(der::element(der::integerTag, octets(129, 0x7F)));
    all.push_back(der::element(der::integerTag, octets(1025, 0x7F)));
    for (const unsigned char value : Bytes{0x00, 0x01, 0xFF}) {
        all.push_back(der::element(der::boolean, {value}));
    }
    all.push_back(der::null());
    all.push_back(der::sequence({}));
    all.push_back(der::set({}));
    all.push_back(der::octetString({}));
    all.push_back(der::octetString(octets(20, 1)));
    all.push_back(der::bitString({}));
    all.push_back(der::bitString({0x80}, 7));
    all.push_back(der::element(der::bitStringTag, {8, 0xFF}));
    all.push_back(der::element(der::bitStringTag, {}));
    for (const char* text :
         {"261122120000Z", "2611221200Z", "261122120000+0100", "990229000000Z", "", "700101000000Z"}) {
        all.push_back(norvauthority::Time::utc(text).der);
    }
    for (const char* text : {"20261122120000Z", "99991231235959Z", "00000101000000Z", "20261122120000.999999999Z"}) {
        all.push_back(norvauthority::Time::generalized(text).der);
    }
    // Strings of every kind: UTF-8, numeric, printable, teletex, IA5, visible, universal, BMP.
    for (const unsigned char tag : Bytes{12, 18, 19, 20, 22, 26, 28, 30}) {
        all.push_back(der::element(tag, norvauthority::bytes("ab12")));
    }
    all.push_back(der::element(12, {0xC0, 0x80}));
    all.push_back(der::element(12, {'a', 0, 'b'}));
    all.push_back(der::element(12, {0xE2, 0x80, 0xAE}));
    all.push_back(norvauthority::Name{{"CN", "Alice"}, {"O", "Org", 19, true}, {"C", "US", 19}}.der());
    all.push_back(norvauthority::Name{}.der());
    // In segments, with lengths of both kinds, and segments within segments.
    all.push_back({0x24, 0x80, 0x04, 0x01, 'a', 0x24, 0x03, 0x04, 0x01, 'b', 0x04, 0x00, 0x00, 0x00});
    all.push_back({0xA0, 0x80, 0x24, 0x80, 0x04, 0x01, 'a', 0x00, 0x00, 0x00, 0x00});
    all.push_back({0x30, 0x80, 0x00, 0x00});
    all.push_back({0x1F, 0x81, 0x00, 0x00});
}

} // namespace

const std::vector<Bytes>& elements() {
    static const std::vector<Bytes> all = [] {
        std::vector<Bytes> made;
        for (const char* name : identifiers) {
            made.push_back(der::oid(name));
        }
        made.push_back(der::rawOid({0x2a, 0x86, 0x48, 0x90, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}));
        made.push_back(der::rawOid({0x80, 0x01}));
        made.push_back(der::rawOid({}));
        addAlgorithms(made);
        addExtensions(made);
        addAttributes(made);
        addValues(made);
        return made;
    }();
    return all;
}

const std::vector<Bytes>& headers() {
    static const std::vector<Bytes> all = [] {
        std::vector<Bytes> made;
        for (const unsigned char tag :
             Bytes{0x30, 0x31, 0x24, 0x04, 0x03, 0x23, 0x02, 0xA0, 0xA1, 0xA2, 0x80, 0x81, 0x82}) {
            for (const Bytes& length : {Bytes{0x00}, Bytes{0x7F}, Bytes{0x80}, Bytes{0x81, 0x80},
                                        Bytes{0x82, 0x01, 0x00}, Bytes{0x84, 0, 0, 0, 1}, Bytes{0x83, 0xFF, 0xFF, 0xFF},
                                        Bytes{0x84, 0x7F, 0xFF, 0xFF, 0xFF}, Bytes{0x84, 0xFF, 0xFF, 0xFF, 0xFF},
                                        Bytes{0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, Bytes{0xFF}}) {
                made.push_back({tag});
                der::append(made.back(), length);
            }
        }
        made.push_back({0x00, 0x00});
        made.push_back({0x00, 0x00, 0x00, 0x00});
        made.push_back({0x3F, 0x10});
        made.push_back({0xBF, 0x81, 0x7F});
        made.push_back({0x1F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F});
        return made;
    }();
    return all;
}

} // namespace fuzz
