// Every kind of recipient, as OpenSSL makes it.
#include "Reading.h"

using namespace cmstest;
using Recipient = Reader::Recipient;

namespace {

constexpr unsigned int ber = CMS_STREAM;

struct Named {
    const char* name;
    const EVP_CIPHER* cipher;
};
const std::vector<Named>& ciphers() {
    static const std::vector<Named> all{{"AES-128-CBC", EVP_aes_128_cbc()},   {"AES-192-CBC", EVP_aes_192_cbc()},
                                        {"AES-256-CBC", EVP_aes_256_cbc()},   {"DES-EDE3-CBC", EVP_des_ede3_cbc()},
                                        {"id-aes128-GCM", EVP_aes_128_gcm()}, {"id-aes192-GCM", EVP_aes_192_gcm()},
                                        {"id-aes256-GCM", EVP_aes_256_gcm()}};
    return all;
}

/// The body comes out of what OpenSSL makes of it for these recipients: DER and BER, authenticated and not, of all sizes.
void expectOpens(const AddRecipients& add, const Opening& open) {
    for (const EVP_CIPHER* cipher : {EVP_aes_256_cbc(), EVP_aes_128_gcm()}) {
        for (const unsigned int flags : {0U, ber}) {
            for (const std::size_t size : {std::size_t{1}, std::size_t{70000}}) {
                SCOPED_TRACE(std::string(EVP_CIPHER_get0_name(cipher)) + " " + std::to_string(flags) + " " +
                             std::to_string(size));
                expectBody(madeByOpenssl(cipher, add, flags, bodyOf(size)), open, bodyOf(size));
            }
        }
    }
}

const Identity& onCurve(const std::string& curve) {
    static std::map<std::string, Identity> all;
    auto& made = all[curve];
    if (made.certificate.der.empty()) {
        made = norvauthority::issue({.subject = {{"CN", curve}},
                                     .key = norvauthority::Key::ec(curve),
                                     .issuer = &identities().authority,
                                     .serial = "5" + std::to_string(all.size())});
    }
    return made;
}

std::string onlyAlgorithm(const Bytes& message) {
    const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
    EXPECT_EQ(reader.recipients().size(), 1U);
    EXPECT_EQ(reader.recipients().front().unsupported(), "");
    return reader.recipients().front().algorithm();
}

} // namespace

TEST(EnvelopeReader, RsaByEitherName) {
    expectOpens(toCertificate(alice()), withKeys({&bob(), &alice()}));
    expectOpens(toCertificate(alice(), CMS_USE_KEYID), withKeys({&bob(), &alice()}));
    EXPECT_EQ(onlyAlgorithm(madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice()))),
              "rsaEncryption (1.2.840.113549.1.1.1)");
}

TEST(EnvelopeReader, RsaOaepWithEveryDigestAndALabel) {
    expectOpens(toCertificate(alice(), 0, {{"rsa_padding_mode", "oaep"}}), withKeys({&alice()}));
    for (const char* digest : {"sha1", "sha224", "sha256", "sha384", "sha512"}) {
        for (const char* mask : {"sha1", "sha512"}) {
            SCOPED_TRACE(std::string(digest) + " " + mask);
            const Bytes message = madeByOpenssl(
                EVP_aes_256_gcm(),
                toCertificate(alice(), CMS_USE_KEYID,
                              {{"rsa_padding_mode", "oaep"}, {"rsa_oaep_md", digest}, {"rsa_mgf1_md", mask}}));
            EXPECT_EQ(onlyAlgorithm(message), "RSAES-OAEP (1.2.840.113549.1.1.7)");
            expectBody(message, withKeys({&alice()}), bodyOf(1000));
        }
    }
    expectOpens(
        toCertificate(alice(), 0,
                      {{"rsa_padding_mode", "oaep"}, {"rsa_oaep_md", "sha256"}, {"rsa_oaep_label", "00ff61626300"}}),
        withKeys({&alice()}));
}

TEST(EnvelopeReader, EllipticCurvesWithEveryDerivationByEitherName) {
    for (const char* curve : {"P-256", "P-384", "P-521", "brainpoolP256r1", "secp256k1"}) {
        SCOPED_TRACE(curve);
        const Identity& person = onCurve(curve);
        for (const unsigned int naming : {0U, static_cast<unsigned int>(CMS_USE_KEYID)}) {
            expectOpens(toCertificate(person, naming), withKeys({&alice(), &person}));
        }
        for (const char* digest : {"sha1", "sha224", "sha256", "sha384", "sha512"}) {
            for (const char* cofactor : {"0", "1"}) {
                SCOPED_TRACE(std::string(digest) + " " + cofactor);
                const Bytes message = madeByOpenssl(
                    EVP_aes_256_cbc(),
                    toCertificate(person, 0, {{"ecdh_kdf_md", digest}, {"ecdh_cofactor_mode", cofactor}}));
                expectBody(message, withKeys({&person}), bodyOf(1000));
            }
        }
    }
    EXPECT_EQ(onlyAlgorithm(
                  madeByOpenssl(EVP_aes_256_cbc(), toCertificate(onCurve("P-256"), 0, {{"ecdh_kdf_md", "sha384"}}))),
              "dhSinglePass-stdDH-sha384kdf-scheme (1.3.132.1.11.2)");
}

TEST(EnvelopeReader, EllipticCurvesWithEveryContentCipher) {
    // OpenSSL chooses the key wrap that is as strong as the cipher.
    for (const Named& one : ciphers()) {
        SCOPED_TRACE(one.name);
        expectBody(madeByOpenssl(one.cipher, toCertificate(onCurve("P-384"))), withKeys({&onCurve("P-384")}),
                   bodyOf(1000));
    }
}

TEST(EnvelopeReader, KeyEncryptionKeysByIdentifier) {
    expectOpens(addSecretKey, withSecretKey(Bytes(32, 1)));
    for (const std::size_t length : {16U, 24U, 32U}) {
        const auto add = [length](CMS_ContentInfo* structure) {
            auto* key = static_cast<unsigned char*>(OPENSSL_memdup(Bytes(length, 7).data(), length));
            auto* identifier = static_cast<unsigned char*>(OPENSSL_memdup("a key", 5));
            EXPECT_NE(
                CMS_add0_recipient_key(structure, NID_undef, key, length, identifier, 5, nullptr, nullptr, nullptr),
                nullptr);
        };
        const Bytes message = madeByOpenssl(EVP_aes_192_gcm(), add);
        expectBody(message, withSecretKey(Bytes(length, 7)), bodyOf(1000));
        const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
        ASSERT_EQ(reader.recipients().size(), 1U);
        EXPECT_EQ(bytesOf(reader.recipients().front().keyIdentifier()), bytesOf(std::string("a key")));
        EXPECT_EQ(reader.recipients().front().identifier(), std::nullopt);
        expectDamaged(message, withSecretKey(Bytes(length, 8)), true);
        expectDamaged(message, withSecretKey(Bytes(15, 7)), true);
    }
}

TEST(EnvelopeReader, Passwords) {
    for (const EVP_CIPHER* cipher : {EVP_aes_128_cbc(), EVP_aes_256_cbc(), EVP_des_ede3_cbc()}) {
        for (const unsigned int flags : {0U, ber}) {
            const Bytes message = madeByOpenssl(cipher, addPassword, flags);
            EXPECT_EQ(onlyAlgorithm(message), "id-alg-PWRI-KEK (1.2.840.113549.1.9.16.3.9)");
            expectBody(message, withPassword("secret"), bodyOf(1000));
            for (const char* wrong : {"", "Secret", "secret "}) {
                for (const From from : {From::memory, From::stream}) {
                    const Outcome outcome = outcomeOf(message, from, withPassword(wrong));
                    EXPECT_TRUE(outcome.opened);
                    EXPECT_TRUE(outcome.text == damagedText || outcome.body != bodyOf(1000));
                }
            }
        }
    }
}

TEST(EnvelopeReader, EveryContentCipher) {
    for (const Named& one : ciphers()) {
        for (const unsigned int flags : {0U, ber}) {
            for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 32767U, 32768U, 65535U, 65536U, 65537U, 300000U}) {
                if (size == 0 && (EVP_CIPHER_get_flags(one.cipher) & EVP_CIPH_FLAG_AEAD_CIPHER) != 0) {
                    continue; // OpenSSL makes nothing of it
                }
                SCOPED_TRACE(std::string(one.name) + " " + std::to_string(size));
                const Bytes message = madeByOpenssl(one.cipher, toCertificate(alice()), flags, bodyOf(size));
                expectBody(message, withKeys({&alice()}), bodyOf(size));
                const Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
                EXPECT_EQ(reader.cipher().substr(0, reader.cipher().find(' ')), one.name);
                EXPECT_EQ(reader.contentType(), "1.2.840.113549.1.7.1");
                EXPECT_EQ(reader.isAuthenticated(), std::string(one.name).find("GCM") != std::string::npos);
                EXPECT_TRUE(reader.hasContent());
            }
        }
    }
}

TEST(EnvelopeReader, RecipientsOfAllKindsInOneMessage) {
    const auto all = [](CMS_ContentInfo* structure) {
        addSecretKey(structure);
        toCertificate(onCurve("P-256"))(structure);
        toCertificate(alice())(structure);
        addPassword(structure);
        toCertificate(bob(), CMS_USE_KEYID, {{"rsa_padding_mode", "oaep"}})(structure);
        toCertificate(onCurve("P-521"), CMS_USE_KEYID)(structure);
    };
    for (const unsigned int flags : {0U, ber}) {
        const Bytes message = madeByOpenssl(EVP_aes_256_cbc(), all, flags);
        for (const Identity* person : {&alice(), &bob(), &onCurve("P-256"), &onCurve("P-521")}) {
            expectBody(message, withKeys({&carol(), person}), bodyOf(1000));
        }
        expectBody(message, withSecretKey(Bytes(32, 1)), bodyOf(1000));
        expectBody(message, withPassword("secret"), bodyOf(1000));
        const Outcome none = outcomeOf(message, From::memory, withKeys({&carol()}));
        EXPECT_FALSE(none.opened);
        EXPECT_EQ(none.verdict, Reader::Unopened);
        EXPECT_EQ(none.unsupported, "");
        std::multiset<int> kinds;
        std::size_t named = 0;
        Reader reader(Norvane::MemoryMediaIn(bufferOf(message)));
        for (const Recipient& recipient : reader.recipients()) {
            kinds.insert(recipient.kind());
            for (const Identity* person : {&alice(), &bob(), &onCurve("P-256"), &onCurve("P-521")}) {
                const auto identifier = recipient.identifier();
                named += identifier && identifier->names(certificateOf(*person)) ? 1U : 0U;
            }
        }
        EXPECT_EQ(kinds, (std::multiset<int>{0, 0, 1, 1, 2, 3}));
        EXPECT_EQ(named, 4U);
        EXPECT_EQ(reader.opened(), nullptr);
        EXPECT_TRUE(withKeys({&bob()})(reader));
        ASSERT_NE(reader.opened(), nullptr);
        EXPECT_TRUE(reader.opened()->identifier()->names(certificateOf(bob())));
    }
}

TEST(EnvelopeReader, AChosenRecipient) {
    const auto both = [](CMS_ContentInfo* structure) {
        toCertificate(alice())(structure);
        toCertificate(onCurve("P-256"))(structure);
    };
    const Bytes message = madeByOpenssl(EVP_aes_256_gcm(), both);
    const auto choosing = [](Recipient::Kind kind, const Identity& person) -> Opening {
        return [kind, &person](Reader& reader) {
            for (const Recipient& recipient : reader.recipients()) {
                if (recipient.kind() == kind) {
                    return reader.open(recipient, pairOf(person));
                }
            }
            return false;
        };
    };
    expectBody(message, choosing(Recipient::keyTransport, alice()), bodyOf(1000));
    expectBody(message, choosing(Recipient::keyAgreement, onCurve("P-256")), bodyOf(1000));
    expectDamaged(message, choosing(Recipient::keyTransport, bob()), true);
    expectDamaged(message, choosing(Recipient::keyAgreement, onCurve("P-384")), true);
    EXPECT_FALSE(outcomeOf(message, From::memory, choosing(Recipient::keyAgreement, alice())).opened);
    EXPECT_FALSE(outcomeOf(message, From::memory, choosing(Recipient::keyTransport, onCurve("P-256"))).opened);
    const Reader other(Norvane::MemoryMediaIn(bufferOf(message)));
    const Outcome wrong = outcomeOf(message, From::memory, [&other](Reader& reader) {
        return reader.open(other.recipients().front(), pairOf(alice()));
    });
    EXPECT_EQ(wrong.text, "the recipient is one of another message");
}

TEST(EnvelopeReader, ReadInEveryWay) {
    const Bytes body = bodyOf(100000);
    for (const EVP_CIPHER* cipher : {EVP_aes_256_cbc(), EVP_aes_256_gcm()}) {
        const Bytes message = madeByOpenssl(cipher, toCertificate(alice()), ber, body);
        for (const unsigned int step : {1U, 1000U, 32768U, 70000U, 200000U}) {
            Reader reader(PiecewiseIn(message, 5000));
            reader.spillTo(testing::TempDir() + "swapXXXXXX");
            ASSERT_TRUE(withKeys({&alice()})(reader));
            Bytes got;
            Bytes piece(step);
            EXPECT_EQ(reader.peek(), body.front());
            while (!reader.atEnd()) {
                EXPECT_EQ(reader.verdict(), Reader::Running);
                const int count = reader.read(piece.data(), step);
                EXPECT_EQ(count, std::min<int>(static_cast<int>(step), static_cast<int>(body.size() - got.size())));
                got.insert(got.end(), piece.begin(), piece.begin() + count);
            }
            EXPECT_TRUE(got == body);
            EXPECT_EQ(reader.verdict(), Reader::Complete);
            EXPECT_EQ(reader.peek(), -1);
            EXPECT_EQ(reader.read(piece.data(), step), 0);
        }
    }
}
