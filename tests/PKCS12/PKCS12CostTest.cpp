// Files whose keys and certificates cost too much to decode, and what is opened in the way OpenSSL itself opens it.
#include "support/HostileDer.h"
#include "support/Keys.h"
#include "support/Pkcs12.h"
#include "support/Started.h"
#include "support/Thrown.h"

using namespace Norvane;
using namespace norvtest;
using namespace norvauthority::der;
using Norvane::Crypto::TooCostlyException;
using norvauthority::Bytes;
using norvauthority::Identity;
using norvauthority::Key;

namespace {

const Bytes dataType{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};

const Identity& holder() {
    static const Identity identity =
        norvauthority::issue({.subject = {{"CN", "Holder"}}, .key = Key::ed25519(), .digest = ""});
    return identity;
}

Bytes bag(const char* type, const Bytes& value, const std::vector<Bytes>& attributes = {}) {
    std::vector<Bytes> parts{oid(type), element(contextConstructed(0), value)};
    if (!attributes.empty()) {
        parts.push_back(norvauthority::der::set(attributes));
    }
    return sequence(parts);
}
Bytes keyBag(const Bytes& pkcs8) {
    return bag("1.2.840.113549.1.12.10.1.1", pkcs8);
}
Bytes certificateBag(const Bytes& certificate, const std::vector<Bytes>& attributes = {}) {
    return bag("1.2.840.113549.1.12.10.1.3",
               sequence({oid("1.2.840.113549.1.9.22.1"), element(contextConstructed(0), octetString(certificate))}),
               attributes);
}
/// Under "secret", with one iteration.
Bytes shroudedBag(const Bytes& pkcs8) {
    return bag("1.2.840.113549.1.12.10.1.2", encryptedPkcs8(pkcs8));
}
/// A part of a file (RFC 7292, 4.1), in clear.
Bytes part(const std::vector<Bytes>& bags) {
    return norvauthority::contentInfo(dataType, octetString(sequence(bags)));
}
/// Signed data without signers (RFC 5652, 5.1): no part that is read, whatever certificates are in it.
Bytes signedPart(const std::vector<Bytes>& certificates) {
    const Bytes type{0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x02};
    std::vector<Bytes> parts{integer("1"), norvauthority::der::set({}), sequence({rawOid(dataType)})};
    Bytes all;
    for (const Bytes& one : certificates) {
        all.insert(all.end(), one.begin(), one.end());
    }
    parts.push_back(element(contextConstructed(0), all));
    parts.push_back(norvauthority::der::set({}));
    return norvauthority::contentInfo(type, sequence(parts));
}
/// With a MAC under "secret".
Bytes pfxOf(const std::vector<Bytes>& parts) {
    return withMac(sequence({integer("3"), norvauthority::contentInfo(dataType, octetString(sequence(parts)))}),
                   "secret");
}
Bytes pfx(const std::vector<Bytes>& bags) {
    return pfxOf({part(bags)});
}

Bytes dsa(std::size_t modulusBytes) {
    const Bytes modulus = element(integerTag, Bytes(modulusBytes, 0x55)); // 8 * modulusBytes - 1 bits
    return sequence({integer("0"),
                     sequence({oid("1.2.840.10040.4.1"), sequence({modulus, integer("5"), integer("2")})}),
                     octetString(integer("3"))});
}
Bytes rsaWithFurtherPrimes() {
    std::vector<Bytes> parts{integer("1")};
    parts.insert(parts.end(), 8, integer("3"));
    parts.push_back(sequence(std::vector<Bytes>(2000, sequence({integer("3"), integer("3"), integer("3")}))));
    return sequence({integer("0"), sequence({oid("1.2.840.113549.1.1.1"), null()}), octetString(sequence(parts))});
}
/// A certificate with a public key on a curve that is spelled out, in so far as it is looked at before it is decoded.
Bytes certificateOnASpelledOutCurve() {
    const Bytes key = sequence({sequence({oid("1.2.840.10045.2.1"), sequence({integer("1")})}), bitString(Bytes(65))});
    const Bytes name = sequence({});
    const Bytes algorithm = sequence({oid("1.2.840.10045.4.3.2")});
    return sequence(
        {sequence({integer("1"), algorithm, name, sequence({}), name, key}), algorithm, bitString(Bytes(8))});
}

class Pkcs12Costs : public x509testing::QuietQueue {
protected:
    static void expectRefused(const Bytes& der, const std::string& why) {
        const auto store = storeOf(der);
        const auto thrown = thrownBy<TooCostlyException>([&] { store->read("secret"); });
        expectFailure(thrown, "Crypto::PKCS12::read", 4, "PKCS12");
        EXPECT_EQ(detailOf(thrown), "In the PKCS#12 structure, " + why);
        EXPECT_TRUE(store->privateKey().isNull());
        EXPECT_TRUE(errorQueueIsEmpty());
    }
    static void expectRead(const Bytes& der) {
        const auto store = storeOf(der);
        store->read("secret");
        EXPECT_FALSE(store->privateKey().isNull());
        static_cast<void>(owned(*store));
    }
};

TEST_F(Pkcs12Costs, KeysWithLongNumbersAreRefused) {
    const std::string why = "DSA modulus of 10007 bits, more than 10000";
    expectRefused(pfx({keyBag(dsa(1251))}), why);
    expectRefused(pfx({shroudedBag(dsa(1251))}), why);
    expectRead(pfx({keyBag(dsa(128))}));
    expectRead(pfx({shroudedBag(dsa(128))}));
}

TEST_F(Pkcs12Costs, LongKeysAreRefused) {
    const std::string why = "the private key is longer than 16384 bytes";
    expectRefused(pfx({keyBag(rsaWithFurtherPrimes())}), why);
    expectRefused(pfx({shroudedBag(rsaWithFurtherPrimes())}), why);
}

TEST_F(Pkcs12Costs, KeysThatAreNotReadMayBeAnything) {
    expectRead(pfx({keyBag(holder().key.pkcs8()), keyBag(dsa(1251)), shroudedBag(rsaWithFurtherPrimes())}));
}

TEST_F(Pkcs12Costs, CertificatesThatCostTooMuchAreRefused) {
    const std::string why = "a certificate is refused: explicit elliptic curve parameters";
    expectRefused(pfx({certificateBag(certificateOnASpelledOutCurve())}), why);
    expectRefused(pfx({keyBag(holder().key.pkcs8()), certificateBag(holder().certificate.der),
                       certificateBag(certificateOnASpelledOutCurve())}),
                  why);
}

TEST_F(Pkcs12Costs, CertificatesAreLimitedInNumber) {
    std::vector<Bytes> bags(2500, certificateBag(holder().certificate.der));
    bags.push_back(keyBag(holder().key.pkcs8()));
    expectRead(pfx(bags));
    bags.push_back(certificateBag(holder().certificate.der));
    expectRefused(pfx(bags), "a certificate is refused: more than 2500 public keys in one structure");
}

/// OpenSSL decodes the certificates of signed parts with the file, before there was a password, or with the other parts.
TEST_F(Pkcs12Costs, CertificatesOfSignedPartsAreNotDecodedEither) {
    const Bytes costly = certificateOnASpelledOutCurve();
    const auto thrown = thrownBy([&] { storeOf(sequence({integer("3"), signedPart({costly})})); });
    expectFailure(thrown, "Crypto::PKCS12::Store", 4, "PKCS12");
    EXPECT_NE(detailOf(thrown).find("refused: explicit elliptic curve parameters"), std::string::npos)
        << detailOf(thrown);
    EXPECT_TRUE(errorQueueIsEmpty());
    const Bytes key = part({keyBag(holder().key.pkcs8())});
    expectRefused(pfxOf({key, signedPart({costly})}), "a certificate is refused: explicit elliptic curve parameters");
    std::vector<Bytes> many(2500, holder().certificate.der);
    expectRead(pfxOf({key, signedPart(many)}));
    many.push_back(holder().certificate.der);
    expectRefused(pfxOf({key, signedPart(many)}),
                  "a certificate is refused: more than 2500 public keys in one structure");
}

// The same as what OpenSSL finds.

struct Found {
    bool opened = false;
    Bytes key;
    Bytes certificate; ///< with the name and the identifier that its bag gives it
};

template <class T, class Encode> Bytes encodingOf(T* object, Encode encode) {
    if (object == nullptr) {
        return {};
    }
    unsigned char* bytes = nullptr;
    const int length = encode(object, &bytes);
    Bytes result(bytes, bytes + std::max(length, 0));
    OPENSSL_free(bytes);
    return result;
}

Found foundByOpenSsl(const Bytes& der) {
    const unsigned char* at = der.data();
    const std::unique_ptr<PKCS12_st, norvtest::detail::FreeingPkcs12> structure(
        d2i_PKCS12(nullptr, &at, static_cast<long>(der.size())));
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    Found found;
    found.opened = structure && PKCS12_parse(structure.get(), "secret", &key, &certificate, nullptr) == 1;
    found.key = encodingOf(key, i2d_PrivateKey);
    found.certificate = encodingOf(certificate, i2d_X509_AUX);
    EVP_PKEY_free(key);
    X509_free(certificate);
    ERR_clear_error();
    return found;
}

Found foundByUs(const Bytes& der) {
    Found found;
    try {
        const auto store = storeOf(der);
        store->read("secret");
        found.opened = true;
        found.key = encodingOf(static_cast<EVP_PKEY*>(store->privateKey()), i2d_PrivateKey);
        const auto certificate = owned(*store);
        found.certificate = encodingOf(static_cast<X509*>(certificate), i2d_X509_AUX);
    } catch (const Exception&) {
        ERR_clear_error();
    }
    return found;
}

void expectTheSame(const Bytes& der) {
    const Found theirs = foundByOpenSsl(der);
    const Found ours = foundByUs(der);
    EXPECT_EQ(ours.opened, theirs.opened) << norvauthority::toHex(der);
    EXPECT_EQ(ours.key, theirs.key);
    EXPECT_EQ(ours.certificate, theirs.certificate);
}

TEST_F(Pkcs12Costs, TheSameIsFoundAsByOpenSsl) {
    const Identity other = norvauthority::issue({.subject = {{"CN", "Other"}}, .key = Key::ec()});
    const Bytes name = sequence(
        {oid("1.2.840.113549.1.9.20"), norvauthority::der::set({element(0x1e, norvauthority::fromHex("004100"))})});
    const Bytes proper = sequence(
        {oid("1.2.840.113549.1.9.20"), norvauthority::der::set({element(0x1e, norvauthority::fromHex("004100e9"))})});
    const Bytes wrongName = sequence({oid("1.2.840.113549.1.9.20"), norvauthority::der::set({integer("1")})});
    const Bytes identifier =
        sequence({oid("1.2.840.113549.1.9.21"), norvauthority::der::set({octetString({1, 2, 3})})});
    const Bytes wrongIdentifier = sequence({oid("1.2.840.113549.1.9.21"), norvauthority::der::set({integer("1")})});
    const Bytes mine = holder().certificate.der;
    const Bytes key = keyBag(holder().key.pkcs8());
    const Bytes otherKey = shroudedBag(other.key.pkcs8());
    const Bytes otherCertificate = certificateBag(other.certificate.der);
    const auto nested = [](const std::vector<Bytes>& bags) {
        return bag("1.2.840.113549.1.12.10.1.6", sequence(bags));
    };
    for (const std::vector<Bytes>& bags : std::vector<std::vector<Bytes>>{
             {},
             {key, certificateBag(mine, {proper, identifier})},
             {certificateBag(mine, {name}), key},
             {certificateBag(mine, {wrongName}), key},
             {certificateBag(mine, {wrongIdentifier}), key},
             {key, otherKey, otherCertificate, certificateBag(mine)},
             {otherKey, key, certificateBag(mine), otherCertificate},
             {certificateBag(mine, {proper}), certificateBag(mine, {identifier}), key},
             {nested({nested({key}), certificateBag(mine)}), otherKey},
             {certificateBag({0x30, 0x00}), key},
             {bag("1.2.840.113549.1.12.10.1.3",
                  sequence({oid("1.2.840.113549.1.9.22.2"), element(contextConstructed(0), octetString(mine))})),
              key},
             {bag("1.2.840.113549.1.12.10.1.5", null()), key},
             {keyBag(sequence({integer("0"), sequence({oid("1.2.3")}), octetString({})})), key},
             {shroudedBag(holder().key.pkcs8()), certificateBag(mine)}}) {
        expectTheSame(pfx(bags));
    }
    EXPECT_TRUE(foundByOpenSsl(pfx({key, certificateBag(mine)})).opened);
}

TEST_F(Pkcs12Costs, TheSameIsFoundInDamagedFilesAsByOpenSsl) {
    for (const int cipher : {-1, NID_pbe_WithSHA1And3_Key_TripleDES_CBC}) {
        const Bytes der = pkcs12({.key = &holder(),
                                  .certificate = &holder(),
                                  .keyCipher = cipher,
                                  .certificateCipher = cipher,
                                  .mac = false});
        for (std::size_t at = 0; at < der.size(); at += 2) {
            Bytes damaged = der;
            damaged[at] ^= static_cast<unsigned char>(1U << (at / 2 % 8));
            const Bytes signedAgain = withMac(damaged, "secret");
            if (!signedAgain.empty()) {
                expectTheSame(signedAgain);
            }
        }
    }
}

} // namespace
