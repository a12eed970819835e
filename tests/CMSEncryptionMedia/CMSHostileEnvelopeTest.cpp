// Enveloped structures that were cut or altered on their way. Whatever comes out is told clearly: an exception at the
// decoding, a recipient that failed, or a body that is another one only where CBC cannot notice.
#include "support/Envelope.h"
#include "support/HostileDer.h"

using namespace cmstest;

namespace {

const Bytes& body() {
    static const Bytes made = bodyOf(50);
    return made;
}
const NVX509::RefKeyStore& keys() {
    static const NVX509::RefKeyStore store = storeOfKeys({&alice()});
    return store;
}
const Bytes& sound() {
    static const Bytes made = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                        .content = contentElement(encryptedContent(body()))});
    return made;
}

bool isRefusedByTheDecoder(const Caught& failure) {
    return failure.where == "CMS::_ContentInfo::_ContentInfo" && failure.line == 389U &&
           failure.details == std::vector<std::string>{"ASN1 Decode failed:"};
}

/// Nothing when the decoder refuses the bytes.
std::optional<Opened> answerTo(const Bytes& structure) {
    const RecordedLog log;
    std::optional<Opened> answer;
    try {
        answer = openedBy(structure, keys());
    } catch (const Norvane::Exception& failure) {
        EXPECT_EQ(failure.where(), "CMS::_ContentInfo::_ContentInfo");
        EXPECT_EQ(failure.lineNumber(), 389U);
    }
    EXPECT_EQ(ERR_peek_error(), 0UL);
    return answer;
}

} // namespace

TEST(HostileEnvelope, TheSoundOneOpens) {
    const auto answer = answerTo(sound());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->body, body());
}

TEST(HostileEnvelope, CutAtEveryLength) {
    for (const Bytes& prefix : norvtest::properPrefixes(sound())) {
        const RecordedLog log;
        PiecewiseIn in(prefix);
        EXPECT_TRUE(isRefusedByTheDecoder(caught([&] { const CMS::DecrypterMediaIn decrypter(in, keys()); })))
            << prefix.size();
    }
}

TEST(HostileEnvelope, StreamedContentCutAtEveryLength) {
    const Bytes streamed = encryptedByOpenssl({&alice()}, bodyOf(3000), EVP_aes_128_cbc(), CMS_STREAM);
    for (const Bytes& prefix : norvtest::properPrefixes(streamed)) {
        const RecordedLog log;
        PiecewiseIn in(prefix);
        EXPECT_TRUE(isRefusedByTheDecoder(caught([&] { const CMS::DecrypterMediaIn decrypter(in, keys()); })))
            << prefix.size();
    }
}

TEST(HostileEnvelope, EachByteAltered) {
    int refused = 0;
    int untried = 0;
    int failed = 0;
    int opened = 0;
    for (std::size_t at = 0; at < sound().size(); ++at) {
        Bytes altered = sound();
        altered[at] ^= static_cast<unsigned char>(1U << (at % 8));
        const auto answer = answerTo(altered);
        if (!answer) {
            ++refused;
        } else if (answer->good) {
            ++opened;
            EXPECT_TRUE(answer->events.empty());
        } else if (answer->failed.empty()) {
            ++untried;
            EXPECT_FALSE(answer->events.empty()) << at;
        } else {
            ++failed;
            EXPECT_EQ(answer->failed.size(), 1U);
        }
        if (answer && !answer->good && !answer->failed.empty() && answer->events.front() == 0x300005AU) {
            EXPECT_TRUE(answer->body.empty()) << "nothing is written for a recipient without a key";
        }
    }
    EXPECT_GT(refused, 10);
    EXPECT_GT(untried, 5) << "the type is another one";
    EXPECT_GT(failed, 200) << "a wrapped key of 256 bytes";
    EXPECT_GT(opened, 16) << "the vector and the first blocks: CBC has no check value";
}

TEST(HostileEnvelope, LengthsBeyondWhatFollows) {
    for (const Bytes& announced : norvtest::oversized(sound())) {
        EXPECT_FALSE(answerTo(announced));
    }
}

TEST(HostileEnvelope, WhatFollowsTheStructureIsLeftAlone) {
    Bytes trailing = sound();
    trailing.insert(trailing.end(), {1, 2, 3});
    PiecewiseIn in(trailing);
    CMS::DecrypterMediaIn decrypter(in, keys());
    EXPECT_FALSE(in.atEnd());
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    EXPECT_EQ(bytesOf(out.content()), body());
}

TEST(HostileEnvelope, AWrappedKeyOfAnotherLengthOpensNothing) {
    for (const std::size_t length : {0U, 1U, 8U, 15U, 17U, 32U}) {
        const auto answer =
            answerTo(envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), Bytes(length, 0x5A)))},
                               .content = contentElement(encryptedContent(body()))}));
        ASSERT_TRUE(answer);
        EXPECT_NE(answer->body, body()) << length;
    }
    for (const std::size_t length : {0U, 1U, 255U, 257U, 4096U}) {
        const auto answer = answerTo(envelope({.recipients = {recipientInfo(alice(), Bytes(length, 0x5A))},
                                               .content = contentElement(encryptedContent(body()))}));
        ASSERT_TRUE(answer);
        EXPECT_NE(answer->body, body()) << length;
    }
}

TEST(HostileEnvelope, OddVersionsDoNotMatter) {
    for (const char* version : {"2", "ff", "-1"}) {
        const auto answer =
            answerTo(envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                               .content = contentElement(encryptedContent(body())),
                               .version = version}));
        ASSERT_TRUE(answer) << version;
        EXPECT_EQ(answer->body, body());
    }
}

// A thousand recipients that all name one key holder cost three attempts; the others are told in sum.
TEST(HostileEnvelope, ManyRecipientsThatNameOneKeyCostThreeAttempts) {
    const std::vector<Bytes> recipients(1000, recipientInfo(alice(), Bytes(256, 1)));
    const auto answer = answerTo(envelope({.recipients = recipients, .content = contentElement(Bytes(15, 1))}));
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->good);
    EXPECT_EQ(answer->failed.size(), 1000U);
    EXPECT_EQ(answer->events, (std::vector<unsigned int>{0x300005B, 0x300005B, 0x300005B, 0x300005F}));
}
