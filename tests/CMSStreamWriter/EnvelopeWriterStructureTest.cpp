// What the envelope writer writes, element by element, as RFC 5652, 5083, 5084, 5753, 8418, 3211 and 4055 have it.
#include "support/EnvelopeWriting.h"

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;
using CMS::NamedBy;
using Crypto::Hasher;

namespace {

constexpr Manner inDer{EnvelopeEncoding::der, true, 0};

std::string oidHex(const std::string& dotted) {
    return norvauthority::toHex(der::oid(dotted)).substr(4);
}

/// EnvelopedData or AuthEnvelopedData, without what is around it.
Node dataIn(const Bytes& message, const std::string& type = "1.2.840.113549.1.7.3") {
    const Node contentInfo = nodeOf(message);
    EXPECT_EQ(contentInfo.at(0).hex(), oidHex(type));
    EXPECT_EQ(contentInfo.at(1).tag, 0xA0);
    EXPECT_EQ(contentInfo.parts.size(), 2U);
    return contentInfo.at(1).at(0);
}
Node dataFor(const std::vector<EnvelopeRecipient>& recipients, ContentCipher cipher = ContentCipher::aes128Cbc) {
    return dataIn(written(recipients, cipher, inDer, bodyOf(100)),
                  cipher >= ContentCipher::aes128Gcm ? "1.2.840.113549.1.9.16.1.23" : "1.2.840.113549.1.7.3");
}
std::string versionFor(const std::vector<EnvelopeRecipient>& recipients,
                       ContentCipher cipher = ContentCipher::aes128Cbc) {
    return dataFor(recipients, cipher).at(0).hex();
}
Node onlyRecipient(const EnvelopeRecipient& recipient, ContentCipher cipher = ContentCipher::aes128Cbc) {
    const Node data = dataFor({recipient}, cipher);
    EXPECT_EQ(data.at(1).tag, 0x31);
    EXPECT_EQ(data.at(1).parts.size(), 1U);
    return data.at(1).at(0);
}

EnvelopeRecipient rsa(NamedBy namedBy = NamedBy::issuerAndSerialNumber) {
    return EnvelopeRecipient(certificateOf(identities().rsa), namedBy);
}
EnvelopeRecipient ecdh(const std::string& curve = "P-256", NamedBy namedBy = NamedBy::issuerAndSerialNumber) {
    return EnvelopeRecipient(certificateOf(onCurve(curve)), namedBy);
}
EnvelopeRecipient sharedKey(std::size_t length = 16) {
    return EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(length)), bufferOf(bytesOf(kekIdentifier)));
}
EnvelopeRecipient sharedPassword() {
    return EnvelopeRecipient::password(bufferOf(bytesOf(password)), {1000});
}

/// SEQUENCE { serial and issuer }, as the authority writes it.
Bytes issuerAndSerialNumber(const Identity& identity) {
    return der::sequence({identities().authority.name.der(), der::integer(identity.serial)});
}

/// Decrypts content as nobody but the holder of its key can.
std::optional<Bytes> decrypted(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& vector, const Bytes& content,
                               const Bytes& associated, Bytes tag) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    Bytes clear(content.size() + 16);
    int first = 0;
    int last = 0;
    EXPECT_EQ(key.size(), static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher)));
    EVP_DecryptInit_ex(context.get(), cipher, nullptr, key.data(), vector.data());
    if (!associated.empty()) {
        EVP_DecryptUpdate(context.get(), nullptr, &first, associated.data(), static_cast<int>(associated.size()));
    }
    EVP_DecryptUpdate(context.get(), clear.data(), &first, content.data(), static_cast<int>(content.size()));
    if (!tag.empty()) {
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()), tag.data());
    }
    if (EVP_DecryptFinal_ex(context.get(), clear.data() + first, &last) != 1) {
        return std::nullopt;
    }
    clear.resize(static_cast<std::size_t>(first) + static_cast<std::size_t>(last));
    return clear;
}

Bytes unwrapped(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& wrapped) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    Bytes clear(wrapped.size());
    int length = 0;
    EVP_DecryptInit_ex(context.get(), cipher, nullptr, key.data(), nullptr);
    EXPECT_EQ(EVP_DecryptUpdate(context.get(), clear.data(), &length, wrapped.data(), static_cast<int>(wrapped.size())),
              1);
    clear.resize(static_cast<std::size_t>(std::max(length, 0)));
    return clear;
}

class EnvelopeX25519 : public ::testing::TestWithParam<std::tuple<Hasher::Type, ContentCipher>> {};

} // namespace

TEST(EnvelopeStructure, VersionsAreThoseOfTheStandard) {
    EXPECT_EQ(versionFor({rsa()}), "00");
    EXPECT_EQ(versionFor({rsa(), rsa()}), "00");
    EXPECT_EQ(versionFor({rsa(NamedBy::subjectKeyIdentifier)}), "02");
    EXPECT_EQ(versionFor({ecdh()}), "02");
    EXPECT_EQ(versionFor({sharedKey()}), "02");
    EXPECT_EQ(versionFor({rsa(), ecdh(), sharedKey()}), "02");
    EXPECT_EQ(versionFor({sharedPassword()}), "03");
    EXPECT_EQ(versionFor({rsa(), sharedPassword()}), "03");
    EXPECT_EQ(versionFor({sharedPassword(), ecdh()}), "03");
    EXPECT_EQ(versionFor({sharedPassword(), ecdh()}, ContentCipher::aes128Gcm), "00"); // RFC 5083, 2.1
    // And of the recipients.
    EXPECT_EQ(onlyRecipient(rsa()).at(0).hex(), "00");
    EXPECT_EQ(onlyRecipient(rsa(NamedBy::subjectKeyIdentifier)).at(0).hex(), "02");
    EXPECT_EQ(onlyRecipient(ecdh()).at(0).hex(), "03");
    EXPECT_EQ(onlyRecipient(sharedKey()).at(0).hex(), "04");
    EXPECT_EQ(onlyRecipient(sharedPassword()).at(0).hex(), "00");
}

TEST(EnvelopeStructure, KeyTransport) {
    const Node recipient = onlyRecipient(rsa());
    EXPECT_EQ(recipient.tag, 0x30);
    EXPECT_EQ(recipient.parts.size(), 4U);
    EXPECT_EQ(recipient.at(1).whole, issuerAndSerialNumber(identities().rsa));
    EXPECT_EQ(recipient.at(2).whole, der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()}));
    EXPECT_EQ(recipient.at(3).tag, 0x04);
    EXPECT_EQ(recipient.at(3).content.size(), 256U);
    const Node byKey = onlyRecipient(rsa(NamedBy::subjectKeyIdentifier));
    EXPECT_EQ(byKey.at(1).whole, der::element(der::context(0), identities().rsa.keyIdentifier));
}

TEST(EnvelopeStructure, OaepLeavesOutWhatIsDefault) {
    const auto parametersOf = [](const CMS::OaepParameters& parameters) {
        const Node algorithm =
            onlyRecipient(EnvelopeRecipient::rsaOaep(certificateOf(identities().rsa), parameters)).at(2);
        EXPECT_EQ(algorithm.at(0).hex(), oidHex("1.2.840.113549.1.1.7"));
        return algorithm.at(1).whole;
    };
    const Bytes sha256 = der::sequence({der::oid("2.16.840.1.101.3.4.2.1"), der::null()});
    const Bytes mask256 = der::sequence({der::oid("1.2.840.113549.1.1.8"), sha256});
    const Bytes label = der::sequence({der::oid("1.2.840.113549.1.1.9"), der::octetString(bytesOf("L"))});
    EXPECT_EQ(parametersOf({Hasher::SHA1}), der::sequence({}));
    EXPECT_EQ(parametersOf({}), der::sequence({der::element(0xA0, sha256), der::element(0xA1, mask256)}));
    EXPECT_EQ(parametersOf({Hasher::SHA1, Hasher::SHA256, bufferOf(bytesOf("L"))}),
              der::sequence({der::element(0xA1, mask256), der::element(0xA2, label)}));
    EXPECT_EQ(parametersOf({Hasher::SHA256, Hasher::SHA1}), der::sequence({der::element(0xA0, sha256)}));
}

TEST(EnvelopeStructure, KeyAgreementWrapsWithTheStrengthOfTheContent) {
    const std::vector<std::tuple<ContentCipher, std::string, Bytes>> wraps{
        {ContentCipher::aes128Cbc, "2.16.840.1.101.3.4.1.5", {}},
        {ContentCipher::aes192Gcm, "2.16.840.1.101.3.4.1.25", {}},
        {ContentCipher::aes256Cbc, "2.16.840.1.101.3.4.1.45", {}},
        {ContentCipher::aes256Gcm, "2.16.840.1.101.3.4.1.45", {}},
        {ContentCipher::tripleDesCbc, "1.2.840.113549.1.9.16.3.6", der::null()}};
    for (const auto& [cipher, wrap, parameters] : wraps) {
        const Node recipient = onlyRecipient(ecdh(), cipher);
        EXPECT_EQ(recipient.tag, 0xA1);
        ASSERT_EQ(recipient.parts.size(), 4U); // no ukm
        EXPECT_EQ(recipient.at(2).whole,
                  der::sequence({der::oid("1.3.132.1.11.1"), der::sequence({der::oid(wrap), parameters})}));
    }
}

TEST(EnvelopeStructure, KeyAgreementNamesItsScheme) {
    const auto schemeOf = [](const EnvelopeRecipient& recipient) { return onlyRecipient(recipient).at(2).at(0).hex(); };
    EXPECT_EQ(schemeOf(ecdh("P-256")), oidHex("1.3.132.1.11.1"));
    EXPECT_EQ(schemeOf(ecdh("P-384")), oidHex("1.3.132.1.11.2"));
    EXPECT_EQ(schemeOf(ecdh("P-521")), oidHex("1.3.132.1.11.3"));
    const auto p256 = certificateOf(onCurve("P-256"));
    EXPECT_EQ(schemeOf(EnvelopeRecipient::keyAgreement(p256, {Hasher::SHA1})), oidHex("1.3.133.16.840.63.0.2"));
    EXPECT_EQ(schemeOf(EnvelopeRecipient::keyAgreement(p256, {Hasher::SHA224})), oidHex("1.3.132.1.11.0"));
    EXPECT_EQ(schemeOf(EnvelopeRecipient::keyAgreement(p256, {Hasher::SHA1, true})), oidHex("1.3.133.16.840.63.0.3"));
    EXPECT_EQ(schemeOf(EnvelopeRecipient::keyAgreement(p256, {{}, true})), oidHex("1.3.132.1.14.1"));
    EXPECT_EQ(schemeOf(EnvelopeRecipient::keyAgreement(p256, {Hasher::SHA512, true})), oidHex("1.3.132.1.14.3"));
}

TEST(EnvelopeStructure, KeyAgreementCarriesAPointAndNamesTheRecipient) {
    const Node recipient = onlyRecipient(ecdh("P-384"));
    EXPECT_EQ(recipient.at(1).tag, 0xA0);
    const Node& originatorKey = recipient.at(1).at(0);
    EXPECT_EQ(originatorKey.tag, 0xA1);
    EXPECT_EQ(originatorKey.at(0).whole, der::sequence({der::oid("1.2.840.10045.2.1")}));
    EXPECT_EQ(originatorKey.at(1).tag, 0x03);
    EXPECT_EQ(originatorKey.at(1).content.size(), 1 + 1 + 2 * 48U);
    EXPECT_EQ(originatorKey.at(1).hex().substr(0, 4), "0004"); // uncompressed
    const Node& keys = recipient.at(3);
    ASSERT_EQ(keys.parts.size(), 1U);
    EXPECT_EQ(keys.at(0).at(0).whole, issuerAndSerialNumber(onCurve("P-384")));
    EXPECT_EQ(keys.at(0).at(1).content.size(), 24U); // 16 octets, wrapped
    EXPECT_EQ(onlyRecipient(ecdh("P-384", NamedBy::subjectKeyIdentifier)).at(3).at(0).at(0).whole,
              der::element(0xA0, der::octetString(onCurve("P-384").keyIdentifier)));
    EXPECT_NE(onlyRecipient(ecdh("P-384")).at(1).whole, recipient.at(1).whole); // another key each time
}

TEST(EnvelopeStructure, KeyEncryptionKey) {
    const std::map<std::size_t, std::string> wraps{
        {16, "2.16.840.1.101.3.4.1.5"}, {24, "2.16.840.1.101.3.4.1.25"}, {32, "2.16.840.1.101.3.4.1.45"}};
    for (const auto& [length, wrap] : wraps) {
        const Node recipient = onlyRecipient(sharedKey(length), ContentCipher::aes256Gcm);
        EXPECT_EQ(recipient.tag, 0xA2);
        EXPECT_EQ(recipient.at(1).whole, der::sequence({der::octetString(bytesOf(kekIdentifier))}));
        EXPECT_EQ(recipient.at(2).whole, der::sequence({der::oid(wrap)}));
        EXPECT_EQ(recipient.at(3).content.size(), 40U);
    }
}

TEST(EnvelopeStructure, Password) {
    const std::vector<std::tuple<Hasher::Type, Bytes>> functions{
        {Hasher::SHA1, {}}, // default
        {Hasher::SHA224, der::sequence({der::oid("1.2.840.113549.2.8"), der::null()})},
        {Hasher::SHA256, der::sequence({der::oid("1.2.840.113549.2.9"), der::null()})},
        {Hasher::SHA384, der::sequence({der::oid("1.2.840.113549.2.10"), der::null()})},
        {Hasher::SHA512, der::sequence({der::oid("1.2.840.113549.2.11"), der::null()})}};
    for (const auto& [digest, function] : functions) {
        const Node recipient = onlyRecipient(EnvelopeRecipient::password(bufferOf(bytesOf("p")), {4096, digest}));
        EXPECT_EQ(recipient.tag, 0xA3);
        EXPECT_EQ(recipient.at(1).tag, 0xA0);
        EXPECT_EQ(recipient.at(1).at(0).hex(), oidHex("1.2.840.113549.1.5.12"));
        const Node& parameters = recipient.at(1).at(1);
        EXPECT_EQ(parameters.at(0).content.size(), 16U);
        EXPECT_EQ(parameters.whole,
                  der::sequence({der::octetString(parameters.at(0).content), der::integer("1000"), function}));
    }
}

/// The key-encryption algorithm is CBC whatever the content has: OpenSSL writes the content's GCM there, with which it
/// cannot open its own messages.
TEST(EnvelopeStructure, PasswordsWrapInCbc) {
    const std::vector<std::tuple<ContentCipher, std::string, std::size_t, std::size_t>> ciphers{
        {ContentCipher::aes128Cbc, "2.16.840.1.101.3.4.1.2", 16, 32},
        {ContentCipher::aes192Cbc, "2.16.840.1.101.3.4.1.22", 16, 32},
        {ContentCipher::aes256Cbc, "2.16.840.1.101.3.4.1.42", 16, 48},
        {ContentCipher::tripleDesCbc, "1.2.840.113549.3.7", 8, 32},
        {ContentCipher::aes128Gcm, "2.16.840.1.101.3.4.1.2", 16, 32},
        {ContentCipher::aes192Gcm, "2.16.840.1.101.3.4.1.22", 16, 32},
        {ContentCipher::aes256Gcm, "2.16.840.1.101.3.4.1.42", 16, 48}};
    for (const auto& [cipher, identifier, vector, length] : ciphers) {
        const Node recipient = onlyRecipient(sharedPassword(), cipher);
        EXPECT_EQ(recipient.at(2).at(0).hex(), oidHex("1.2.840.113549.1.9.16.3.9"));
        EXPECT_EQ(recipient.at(2).at(1).at(0).hex(), oidHex(identifier));
        EXPECT_EQ(recipient.at(2).at(1).at(1).content.size(), vector);
        EXPECT_EQ(recipient.at(3).content.size(), length);
    }
}

TEST(EnvelopeStructure, CiphersAndTheirParameters) {
    const Node cbc = dataFor({rsa()}, ContentCipher::aes256Cbc);
    ASSERT_EQ(cbc.parts.size(), 3U);
    EXPECT_EQ(cbc.at(2).at(0).hex(), oidHex("1.2.840.113549.1.7.1"));
    EXPECT_EQ(cbc.at(2).at(1).at(0).hex(), oidHex("2.16.840.1.101.3.4.1.42"));
    EXPECT_EQ(cbc.at(2).at(1).at(1).content.size(), 16U);
    EXPECT_EQ(cbc.at(2).at(2).tag, 0x80);
    EXPECT_EQ(cbc.at(2).at(2).content.size(), 112U);
    const Node gcm = dataFor({rsa()}, ContentCipher::aes128Gcm);
    ASSERT_EQ(gcm.parts.size(), 4U); // no attributes with id-data
    const Bytes nonce = gcm.at(2).at(1).at(1).at(0).content;
    EXPECT_EQ(nonce.size(), 12U);
    EXPECT_EQ(gcm.at(2).at(1).whole, der::sequence({der::oid("2.16.840.1.101.3.4.1.6"),
                                                    der::sequence({der::octetString(nonce), der::integer("10")})}));
    EXPECT_EQ(gcm.at(2).at(2).content.size(), 100U);
    EXPECT_EQ(gcm.at(3).tag, 0x04);
    EXPECT_EQ(gcm.at(3).content.size(), 16U);
}

TEST(EnvelopeStructure, BerHasIndefiniteLengthsAndSegments) {
    const Bytes body = bodyOf(100000);
    const Bytes message = written({rsa()}, ContentCipher::aes128Cbc, {}, body);
    EXPECT_EQ(norvauthority::toHex(Bytes(message.begin(), message.begin() + 4)), "30800609");
    EXPECT_EQ(norvauthority::toHex(Bytes(message.end() - 10, message.end())), "00000000000000000000");
    const Node data = dataIn(message);
    const Node& content = data.at(2).at(2);
    EXPECT_EQ(content.tag, 0xA0);
    std::vector<std::size_t> lengths;
    for (const Node& segment : content.parts) {
        lengths.push_back(segment.content.size());
    }
    EXPECT_EQ(lengths, (std::vector<std::size_t>{16384, 16384, 16384, 16384, 16384, 16384, 1712}));
    EXPECT_EQ(joined(content).size(), 100016U);
}

TEST(EnvelopeStructure, RecipientsKeepTheirOrderInBerAndAreSortedInDer) {
    const std::vector<EnvelopeRecipient> recipients{sharedPassword(), sharedKey(), ecdh(), rsa()};
    const auto tags = [&](EnvelopeEncoding encoding) {
        std::string all;
        const Node data = dataIn(written(recipients, ContentCipher::aes128Cbc, {encoding}, {}));
        for (const Node& recipient : data.at(1).parts) {
            all += norvauthority::toHex({recipient.tag});
        }
        return all;
    };
    EXPECT_EQ(tags(EnvelopeEncoding::ber), "a3a2a130");
    EXPECT_EQ(tags(EnvelopeEncoding::der), "30a1a2a3");
}

/// RFC 5083, 2.1: authenticated attributes must be there. OpenSSL 3.0.19 expects them under another tag, so this is opened by
/// hand.
TEST(EnvelopeStructure, AnotherContentTypeIsAuthenticated) {
    const Bytes body = bodyOf(3000);
    for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
        EnvelopeOptions options;
        options.cipher = ContentCipher::aes256Gcm;
        options.encoding = encoding;
        options.contentType = "1.2.840.113549.1.7.2";
        const Node data = dataIn(written({sharedKey(32)}, options, body), "1.2.840.113549.1.9.16.1.23");
        ASSERT_EQ(data.parts.size(), 5U);
        EXPECT_EQ(data.at(2).at(0).hex(), oidHex("1.2.840.113549.1.7.2"));
        const Bytes attribute =
            der::sequence({der::oid("1.2.840.113549.1.9.3"), der::set({der::oid("1.2.840.113549.1.7.2")})});
        EXPECT_EQ(data.at(3).whole, der::element(0xA1, attribute));
        EXPECT_EQ(data.at(4).content.size(), 16U);

        const Bytes key = unwrapped(EVP_aes_256_wrap(), kekOf(32), data.at(1).at(0).at(3).content);
        const Bytes& nonce = data.at(2).at(1).at(1).at(0).content;
        const Bytes content = joined(data.at(2).at(2));
        EXPECT_TRUE(decrypted(EVP_aes_256_gcm(), key, nonce, content, der::set({attribute}), data.at(4).content) ==
                    body);
        EXPECT_FALSE(decrypted(EVP_aes_256_gcm(), key, nonce, content, {}, data.at(4).content));
    }
}

TEST(EnvelopeStructure, AnotherContentTypeInCbc) {
    EnvelopeOptions options;
    options.contentType = "1.2.840.113549.1.7.2";
    const Addressee alice{"alice", rsa(), &identities().rsa};
    const Bytes message = written({alice.recipient}, options, bodyOf(50));
    EXPECT_EQ(dataIn(message).at(2).at(0).hex(), oidHex("1.2.840.113549.1.7.2"));
    EXPECT_EQ(dataIn(message).parts.size(), 3U);
}

TEST_P(EnvelopeX25519, OpensByHandAsRfc8418HasIt) {
    const auto [digest, cipher] = GetParam();
    const Bytes body = bodyOf(2000);
    const Identity& identity = onCurve("X25519");
    const auto recipient = EnvelopeRecipient::keyAgreement(certificateOf(identity), {digest});
    const bool is256 = cipher == ContentCipher::aes256Gcm;
    const Node data = dataIn(written({recipient}, cipher, inDer, body),
                             is256 ? "1.2.840.113549.1.9.16.1.23" : "1.2.840.113549.1.7.3");
    EXPECT_EQ(data.at(0).hex(), is256 ? "00" : "02");
    const Node& info = data.at(1).at(0);
    EXPECT_EQ(info.tag, 0xA1);
    EXPECT_EQ(info.at(0).hex(), "03");
    EXPECT_EQ(info.at(1).at(0).at(0).whole, der::sequence({der::oid("1.3.101.110")})); // RFC 8410, 3: no parameters
    const Bytes wrap = der::sequence({der::oid(is256 ? "2.16.840.1.101.3.4.1.45" : "2.16.840.1.101.3.4.1.5")});
    const std::map<Hasher::Type, std::string> schemes{{Hasher::SHA256, "1.2.840.113549.1.9.16.3.19"},
                                                      {Hasher::SHA384, "1.2.840.113549.1.9.16.3.20"},
                                                      {Hasher::SHA512, "1.2.840.113549.1.9.16.3.21"}};
    EXPECT_EQ(info.at(2).whole, der::sequence({der::oid(schemes.at(digest)), wrap}));

    const Bytes& point = info.at(1).at(0).at(1).content;
    ASSERT_EQ(point.size(), 33U);
    EVP_PKEY* peer = EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, point.data() + 1, 32);
    EVP_PKEY_CTX* agreement = EVP_PKEY_CTX_new(identity.key.get(), nullptr);
    Bytes secret(32);
    std::size_t length = secret.size();
    EXPECT_EQ(EVP_PKEY_derive_init(agreement), 1);
    EXPECT_EQ(EVP_PKEY_derive_set_peer(agreement, peer), 1);
    EXPECT_EQ(EVP_PKEY_derive(agreement, secret.data(), &length), 1);
    EVP_PKEY_CTX_free(agreement);
    EVP_PKEY_free(peer);

    // ECC-CMS-SharedInfo: the wrapping and the bits of its key.
    const Bytes shared =
        der::sequence({wrap, der::element(0xA2, der::octetString(is256 ? Bytes{0, 0, 1, 0} : Bytes{0, 0, 0, 128}))});
    Bytes key(is256 ? 32 : 16);
    EVP_PKEY_CTX* hkdf = EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr);
    length = key.size();
    EXPECT_EQ(EVP_PKEY_derive_init(hkdf), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_hkdf_md(hkdf, EVP_get_digestbynid(digest)), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set1_hkdf_key(hkdf, secret.data(), static_cast<int>(secret.size())), 1);
    EXPECT_EQ(EVP_PKEY_CTX_add1_hkdf_info(hkdf, shared.data(), static_cast<int>(shared.size())), 1);
    EXPECT_EQ(EVP_PKEY_derive(hkdf, key.data(), &length), 1);
    EVP_PKEY_CTX_free(hkdf);

    const Bytes contentKey =
        unwrapped(is256 ? EVP_aes_256_wrap() : EVP_aes_128_wrap(), key, info.at(3).at(0).at(1).content);
    const Node& parameters = data.at(2).at(1).at(1);
    const Bytes content = joined(data.at(2).at(2));
    EXPECT_TRUE(is256 ? decrypted(EVP_aes_256_gcm(), contentKey, parameters.at(0).content, content, {},
                                  data.at(3).content) == body
                      : decrypted(EVP_aes_128_cbc(), contentKey, parameters.content, content, {}, {}) == body);
}
INSTANTIATE_TEST_SUITE_P(EnvelopeStructure, EnvelopeX25519,
                         ::testing::Combine(::testing::Values(Hasher::SHA256, Hasher::SHA384, Hasher::SHA512),
                                            ::testing::Values(ContentCipher::aes128Cbc, ContentCipher::aes256Gcm)));
