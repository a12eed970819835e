// Everything that the envelope writer writes, OpenSSL opens.
#include "support/EnvelopeWriting.h"

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using ::testing::Combine;
using ::testing::Range;
using ::testing::Values;

namespace {

constexpr std::size_t kinds = 17;

const std::vector<Addressee>& everybody() {
    static const std::vector<Addressee> all = addressees();
    return all;
}

const std::vector<Manner>& manners() {
    static const std::vector<Manner> all{{EnvelopeEncoding::ber, false, 0},
                                         {EnvelopeEncoding::ber, true, 333},
                                         {EnvelopeEncoding::der, true, 0},
                                         {EnvelopeEncoding::der, false, 5000}};
    return all;
}

void expectOpens(const Bytes& message, const Addressee& by, const Bytes& body) {
    const auto clear = opened(message, by);
    ASSERT_TRUE(clear) << by.name;
    EXPECT_TRUE(*clear == body) << by.name << ", " << body.size() << " bytes";
}

class EnvelopeKinds : public ::testing::TestWithParam<std::tuple<std::size_t, int>> {};
class EnvelopeSizes : public ::testing::TestWithParam<std::tuple<std::size_t, int>> {};

} // namespace

TEST(EnvelopeWriter, ThereAreSoManyKinds) {
    EXPECT_EQ(everybody().size(), kinds);
}

TEST_P(EnvelopeKinds, OpensInEveryEncoding) {
    const auto [who, cipher] = GetParam();
    const Bytes body = bodyOf(5001);
    for (const Manner& manner : manners()) {
        const Bytes message =
            written({everybody().at(who).recipient}, static_cast<ContentCipher>(cipher), manner, body);
        expectOpens(message, everybody().at(who), body);
    }
}
INSTANTIATE_TEST_SUITE_P(EnvelopeWriter, EnvelopeKinds, Combine(Range(std::size_t{0}, kinds), Range(0, 7)));

TEST_P(EnvelopeSizes, Open) {
    const auto [size, cipher] = GetParam();
    const Bytes body = bodyOf(size);
    for (Manner manner : manners()) {
        for (const std::size_t piece : {0U, 1U, 76U, 1023U, 1040U, 16384U, 70001U}) {
            if (piece == 1 && size > 70000) {
                continue;
            }
            manner.piece = piece;
            const Bytes message =
                written({everybody().front().recipient}, static_cast<ContentCipher>(cipher), manner, body);
            expectOpens(message, everybody().front(), body);
        }
    }
}
INSTANTIATE_TEST_SUITE_P(EnvelopeWriter, EnvelopeSizes,
                         Combine(Values(0, 1, 7, 8, 15, 16, 17, 4095, 4096, 4097, 16367, 16368, 16383, 16384, 16385,
                                        32768, 65535, 65536, 65537, 1 << 20),
                                 Values(2, 3, 6)));

TEST(EnvelopeWriter, PiecesOfAllSizesMixedKeepTheirOrder) {
    const Bytes body = bodyOf(300000);
    for (const ContentCipher cipher : {ContentCipher::aes192Cbc, ContentCipher::aes192Gcm}) {
        EnvelopeOptions options;
        options.cipher = cipher;
        Norvane::MemoryMediaOut target;
        CMS::EnvelopeWriter writer({everybody().front().recipient}, options);
        writer.attach(target);
        writeMixed(writer, body);
        writer.end();
        expectOpens(bytesOf(target.content()), everybody().front(), body);
    }
}

TEST(EnvelopeWriter, EverybodyOpensWhatIsForAll) {
    const Bytes body = bodyOf(70000);
    for (const ContentCipher cipher :
         {ContentCipher::aes256Cbc, ContentCipher::tripleDesCbc, ContentCipher::aes256Gcm}) {
        for (const Manner& manner : manners()) {
            const Bytes message = written(recipientsOf(everybody()), cipher, manner, body);
            // Of the keys with identifiers OpenSSL takes the first one for a given certificate or identifier.
            for (const Addressee& person : everybody()) {
                if (person.kek.size() != 24 && person.kek.size() != 32) {
                    expectOpens(message, person, body);
                }
            }
        }
    }
}

TEST(EnvelopeWriter, DerIsWhatOpensslMakesOfIt) {
    const Bytes body = bodyOf(40000);
    for (const int cipher : {0, 3, 6}) {
        for (const bool announced : {false, true}) {
            const Bytes message = written(recipientsOf(everybody()), static_cast<ContentCipher>(cipher),
                                          {EnvelopeEncoding::der, announced, 0}, body);
            const CmsStructure decoded = decodedCms(message);
            ASSERT_TRUE(decoded);
            unsigned char* encoded = nullptr;
            const int length = i2d_CMS_ContentInfo(decoded.get(), &encoded);
            ASSERT_GT(length, 0);
            const Bytes again(encoded, encoded + length);
            OPENSSL_free(encoded);
            EXPECT_TRUE(again == message);
        }
    }
}

TEST(EnvelopeWriter, NoTwoMessagesAreEqual) {
    const Bytes body = bodyOf(1000);
    const auto contentOf = [&] { // not the recipients, which are encrypted for at random
        const Bytes message = written({everybody().back().recipient}, ContentCipher::aes256Gcm, {}, body);
        return Bytes(message.end() - 900, message.end());
    };
    EXPECT_NE(contentOf(), contentOf());
}
