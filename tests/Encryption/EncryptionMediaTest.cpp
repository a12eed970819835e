// The encrypting and the decrypting stream: pieces, padding, ends, targets that fail, handles.

#include "support/Ciphers.h"
#include "support/Slots.h"
#include "support/Thrown.h"

#include <gmock/gmock.h>

#include <pthread.h>

#include <memory>
#include <stdexcept>

using namespace ciphertest;
using namespace norvtest;
using namespace Norvane::Crypto;
using Norvane::Exception;
using Norvane::MediaOut;
using Norvane::MediaOutDecorator;
using Norvane::MemoryMediaOut;
using testing::ElementsAre;

namespace {

const Facts& des = allCiphers().front();
const Facts& aes128 = allCiphers()[5];

/// Keeps the length of every write and counts the ends; throws where it is told to.
class RecordingImpl : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (failingWrites > 0) {
            --failingWrites;
            throw StreamFailure();
        }
        lengths.push_back(length);
        content.append(reinterpret_cast<const char*>(data), length);
    }
    void end() override {
        ++ends;
        if (failingEnds > 0) {
            --failingEnds;
            throw std::runtime_error("the disk is full");
        }
    }

    std::vector<unsigned int> lengths;
    std::string content;
    int ends = 0;
    int failingWrites = 0;
    int failingEnds = 0;
};

class Recording : public MediaOut {
public:
    Recording() : MediaOut(Norvane::makeReference<RecordingImpl, Norvane::MediaOutImpl>()) {}
    RecordingImpl& body() { return dynamic_cast<RecordingImpl&>(*bodyOrNull()); }
};

template <class Stream> Stream streamTo(const Facts& facts, const MediaOut& target) {
    Stream stream(facts.cipher, keyFor(facts), ivFor(facts));
    stream.attach(target);
    return stream;
}

TEST_P(EachCipher, NoBytesGiveOneBlockOfPadding) {
    const std::string secret = encrypted(GetParam(), "");
    EXPECT_EQ(secret.size(), GetParam().blockLength);
    EXPECT_EQ(decrypted(GetParam(), secret), "");
}

TEST_P(EachCipher, BodiesOfEveryLengthAroundTheBlocksAndTheSmallAreaComeBack) {
    const std::size_t block = GetParam().blockLength;
    for (const std::size_t length :
         {0U, 1U, 7U, 8U, 9U, 15U, 16U, 17U, 31U, 32U, 33U, 4063U, 4064U, 4095U, 4096U, 4097U, 4128U, 70001U}) {
        const std::string body = sampleBytes(length);
        const std::string secret = encrypted(GetParam(), body);
        EXPECT_EQ(secret.size(), (length / block + 1) * block);
        EXPECT_EQ(decrypted(GetParam(), secret), body) << length;
    }
}

TEST_P(EachCipher, PiecesOfAnySizeGiveTheSameBytes) {
    const Facts& facts = GetParam();
    const std::string body = sampleBytes(10007);
    const std::string secret = encrypted(facts, body);
    for (const std::size_t piece : {1U, 3U, 7U, 8U, 13U, 16U, 17U, 4096U, 4097U, 10007U}) {
        EXPECT_EQ(through(EncrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), body, piece), secret) << piece;
        EXPECT_EQ(through(DecrypterMediaOut(facts.cipher, keyFor(facts), ivFor(facts)), secret, piece), body) << piece;
    }
}

TEST_P(EachCipher, AnotherIvGivesOtherBytesFromTheFirstOn) {
    const Facts& facts = GetParam();
    Buffer other = ivFor(facts);
    other.data()[0] ^= 1U;
    const std::string body = sampleBytes(100);
    const std::string secret = through(EncrypterMediaOut(facts.cipher, keyFor(facts), other), body);
    EXPECT_NE(secret.substr(0, facts.blockLength), encrypted(facts, body).substr(0, facts.blockLength));
    // A wrong IV spoils the first block only, in that bit, and nobody can tell.
    const std::string read = decrypted(facts, secret);
    EXPECT_EQ(read.substr(1), body.substr(1));
    EXPECT_EQ(read[0] ^ body[0], 1);
}

TEST_P(EachCipher, DamagedPaddingThrowsAtTheEndOnly) {
    const Facts& facts = GetParam();
    std::string secret = encrypted(facts, sampleBytes(3 * facts.blockLength - 1)); // padding: 01
    secret[secret.size() - facts.blockLength - 1] ^= 0x40;                         // now 41, longer than any block
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(facts, target);
    decrypter.write(bufferOf(secret));
    const auto thrown = thrownBy([&] { decrypter.end(); });
    expectFailure(thrown, "Crypto::Decrypter::update", 4, "Encryption", 264);
    EXPECT_NE(detailOf(thrown).find("bad decrypt"), std::string::npos) << detailOf(thrown);
    EXPECT_TRUE(errorQueueIsEmpty());
    EXPECT_EQ(target.body().content.size(), 2 * facts.blockLength) << "nothing of the last block";
    EXPECT_EQ(target.body().ends, 0);
}

INSTANTIATE_TEST_SUITE_P(Ciphers, EachCipher, testing::ValuesIn(allCiphers()), nameOf);

TEST(EncrypterMediaOut, SixteenBytesGive32WithAes) {
    EXPECT_EQ(encrypted(aes128, sampleBytes(16)).size(), 32U);
}

TEST(EncrypterMediaOut, OneWriteInGivesOneWriteOutOfTheBlocksThatAreFull) {
    Recording target;
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    for (const unsigned int length : {5U, 10U, 1U, 40U, 4096U, 4097U, 1U << 20U}) {
        encrypter.write(bufferOf(sampleBytes(length)));
    }
    EXPECT_THAT(target.body().lengths, ElementsAre(0, 0, 16, 32, 4096, 4096, 1U << 20U));
    encrypter.end(); // 8 + 1 bytes are left over
    EXPECT_THAT(target.body().lengths, ElementsAre(0, 0, 16, 32, 4096, 4096, 1U << 20U, 16));
}

TEST(DecrypterMediaOut, OneWriteInGivesOneWriteOutWithoutTheLastBlock) {
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, target);
    const std::string secret = encrypted(aes128, sampleBytes(8000));
    std::size_t at = 0;
    for (const std::size_t length : {15UL, 1UL, 1UL, 31UL, 4960UL, secret.size()}) {
        decrypter.write(bufferOf(secret.substr(at, length)));
        at += length;
    }
    EXPECT_THAT(target.body().lengths, ElementsAre(0, 0, 16, 16, 4960, 3008));
    decrypter.end();
    EXPECT_THAT(target.body().lengths, ElementsAre(0, 0, 16, 16, 4960, 3008, 0)) << "the last block was all padding";
    EXPECT_EQ(target.body().content, sampleBytes(8000));
}

TEST(EncrypterMediaOut, WritesOfNothingDoNothing) {
    Recording target;
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    const unsigned char byte = 1;
    encrypter.write(nullptr, 5);
    encrypter.write(nullptr, 0);
    encrypter.write(&byte, 0);
    encrypter.write(Buffer());
    EXPECT_TRUE(target.body().lengths.empty());
    encrypter.end();
    EXPECT_EQ(target.body().content, encrypted(aes128, ""));
}

TEST(DecrypterMediaOut, WritesOfNothingDoNothing) {
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, target);
    const unsigned char byte = 1;
    decrypter.write(nullptr, 5);
    decrypter.write(&byte, 0);
    decrypter.write(Buffer());
    EXPECT_TRUE(target.body().lengths.empty());
}

TEST(EncrypterMediaOut, ASecondEndDoesNothing) {
    Recording target;
    auto encrypter = streamTo<EncrypterMediaOut>(des, target);
    encrypter.write(bufferOf("body"));
    encrypter.end();
    encrypter.end();
    encrypter.end();
    EXPECT_THAT(target.body().lengths, ElementsAre(0, 8));
    EXPECT_EQ(target.body().ends, 1);
}

TEST(DecrypterMediaOut, ASecondEndDoesNothing) {
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(des, target);
    decrypter.write(bufferOf(encrypted(des, "body")));
    decrypter.end();
    decrypter.end();
    EXPECT_EQ(target.body().content, "body");
    EXPECT_EQ(target.body().ends, 1);
}

TEST(EncrypterMediaOut, WritingAfterTheEndThrowsAndPassesNothingOn) {
    Recording target;
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    encrypter.end();
    const auto thrown = thrownBy([&] { encrypter.write(bufferOf("more")); });
    expectFailure(thrown, "Crypto::EncrypterMediaOut::write", 4, "Encryption", 150);
    EXPECT_EQ(detailOf(thrown), "written to after its end");
    EXPECT_THAT(target.body().lengths, ElementsAre(16));
    encrypter.write(nullptr, 5); // nothing is still nothing
}

TEST(DecrypterMediaOut, WritingAfterTheEndThrowsAndPassesNothingOn) {
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, target);
    decrypter.write(bufferOf(encrypted(aes128, "")));
    decrypter.end();
    const auto thrown = thrownBy([&] { decrypter.write(bufferOf("more")); });
    expectFailure(thrown, "Crypto::Decrypter::write", 4, "Encryption", 246);
    EXPECT_EQ(detailOf(thrown), "written to after its end");
    EXPECT_EQ(target.body().content, "");
}

TEST(DecrypterMediaOut, AWrongKeyThrowsAtTheEnd) {
    Buffer wrong = keyFor(aes128);
    wrong.data()[15] ^= 1U;
    DecrypterMediaOut decrypter(aes128.cipher, wrong, ivFor(aes128));
    Recording target;
    decrypter.attach(target);
    decrypter.write(bufferOf(encrypted(aes128, "a body of more than one block")));
    for (int i = 0; i < 2; ++i) { // and again: the stream did not end
        const auto thrown = thrownBy([&] { decrypter.end(); });
        expectFailure(thrown, "Crypto::Decrypter::update", 4, "Encryption", 264);
        EXPECT_NE(detailOf(thrown).find("bad decrypt"), std::string::npos) << detailOf(thrown);
    }
    EXPECT_EQ(target.body().ends, 0);
    EXPECT_THAT(target.body().lengths, ElementsAre(16)) << "only what was written";
}

TEST(DecrypterMediaOut, NoBytesAndPartsOfBlocksThrowAtTheEnd) {
    const std::string secret = encrypted(aes128, "a body of more than one block");
    for (const std::size_t length : {0U, 1U, 15U, 17U, 31U}) {
        Recording target;
        auto decrypter = streamTo<DecrypterMediaOut>(aes128, target);
        decrypter.write(bufferOf(secret.substr(0, length)));
        const auto thrown = thrownBy([&] { decrypter.end(); });
        expectFailure(thrown, "Crypto::Decrypter::update", 4, "Encryption", 264);
        EXPECT_NE(detailOf(thrown).find("wrong final block length"), std::string::npos) << detailOf(thrown);
        EXPECT_TRUE(errorQueueIsEmpty());
        EXPECT_EQ(target.body().ends, 0);
    }
}

TEST(DecrypterMediaOut, IdeaTooRefusesNoBytesAndPartsOfBlocks) {
    const Facts& idea = allCiphers()[1];
    for (const std::size_t length : {0U, 1U, 7U, 9U}) {
        Recording target;
        auto decrypter = streamTo<DecrypterMediaOut>(idea, target);
        decrypter.write(bufferOf(encrypted(idea, "more than a block").substr(0, length)));
        EXPECT_NE(detailOf(thrownBy([&] { decrypter.end(); })).find("wrong final block length"), std::string::npos);
    }
}

/// Runs `work` on a thread with a stack that a large write would not fit.
void onSmallStack(void (*work)()) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 512 * 1024), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void* argument) -> void* {
                      reinterpret_cast<void (*)()>(argument)();
                      return nullptr;
                  },
                  reinterpret_cast<void*>(work)),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST(LargeWrites, DoNotLiveOnTheStackAndStayOneWrite) {
    onSmallStack([] {
        const std::string body = sampleBytes(2U << 20U);
        Recording secret;
        auto encrypter = streamTo<EncrypterMediaOut>(aes128, secret);
        encrypter.write(bufferOf(body));
        encrypter.end();
        EXPECT_THAT(secret.body().lengths, ElementsAre(2U << 20U, 16));
        Recording clear;
        auto decrypter = streamTo<DecrypterMediaOut>(aes128, clear);
        decrypter.write(bufferOf(secret.body().content));
        decrypter.end();
        EXPECT_THAT(clear.body().lengths, ElementsAre(2U << 20U, 0));
        EXPECT_TRUE(clear.body().content == body);
    });
}

TEST(Targets, WithoutOneAWriteThrowsAndTakesNothing) {
    EncrypterMediaOut encrypter(aes128.cipher, keyFor(aes128), ivFor(aes128));
    const auto thrown = thrownBy([&] { encrypter.write(bufferOf("lost?")); });
    EXPECT_EQ(thrown.where(), "operator->");
    EXPECT_EQ(thrown.code(), 1);
    MemoryMediaOut target;
    encrypter.attach(target);
    encrypter.write(bufferOf("body"));
    encrypter.end();
    EXPECT_EQ(textOf(target.content()), encrypted(aes128, "body"));
}

TEST(Targets, WithoutOneTheEndThrowsAndCanBeRepeatedWithOne) {
    DecrypterMediaOut decrypter(aes128.cipher, keyFor(aes128), ivFor(aes128));
    MemoryMediaOut target;
    decrypter.attach(target);
    decrypter.write(bufferOf(encrypted(aes128, "body")));
    decrypter.detach();
    EXPECT_EQ(thrownBy([&] { decrypter.end(); }).where(), "operator->");
    decrypter.attach(target);
    decrypter.end();
    EXPECT_EQ(textOf(target.content()), "body");
    EXPECT_TRUE(target.ended());
}

TEST(Targets, WhatTheyThrowInTheMiddlePassesUnchanged) {
    for (const std::size_t room : {0U, 16U, 4096U}) {
        FailingMediaOut target(room);
        auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
        EXPECT_EQ(thrownBy<StreamFailure>([&] {
                      for (int i = 0; i < 1000; ++i) {
                          encrypter.write(bufferOf(sampleBytes(16)));
                      }
                  }).where(),
                  "the stream");
        EXPECT_EQ(target.body().content.size(), room);
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TEST(Targets, WhatTheyThrowUnderALargeWritePassesUnchanged) {
    FailingMediaOut target(100);
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    EXPECT_EQ(thrownBy<StreamFailure>([&] { encrypter.write(bufferOf(sampleBytes(1U << 20U))); }).where(),
              "the stream");
}

TEST(Targets, ThatFailToTakeTheLastBlockGetItAgain) {
    Recording target;
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    encrypter.write(bufferOf("body"));
    target.body().failingWrites = 2;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(thrownBy<StreamFailure>([&] { encrypter.end(); }).where(), "the stream");
        EXPECT_EQ(target.body().ends, 0);
    }
    encrypter.end();
    EXPECT_EQ(target.body().content, encrypted(aes128, "body"));
    EXPECT_EQ(target.body().ends, 1);
}

TEST(Targets, ThatFailToEndAreEndedAgainAndGetTheLastBlockOnce) {
    Recording target;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, target);
    decrypter.write(bufferOf(encrypted(aes128, "body")));
    target.body().failingEnds = 1;
    EXPECT_THROW(decrypter.end(), std::runtime_error);
    EXPECT_EQ(target.body().content, "body");
    decrypter.end();
    decrypter.end();
    EXPECT_EQ(target.body().content, "body");
    EXPECT_EQ(target.body().ends, 2);
}

TEST(Targets, AreNotEndedNorGivenTheLastBlockWithoutAnEnd) {
    Recording target;
    {
        auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
        encrypter.write(bufferOf(sampleBytes(20)));
        EXPECT_EQ(target->referenceCount(), 2);
    }
    EXPECT_EQ(target.body().content, encrypted(aes128, sampleBytes(20)).substr(0, 16));
    EXPECT_EQ(target.body().ends, 0);
    EXPECT_EQ(target->referenceCount(), 1);
    streamTo<DecrypterMediaOut>(aes128, target); // gone at once
    EXPECT_EQ(target.body().ends, 0);
}

TEST(Targets, CanBeExchangedBetweenWrites) {
    Recording one;
    Recording other;
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, one);
    encrypter.write(bufferOf(sampleBytes(32)));
    encrypter.attach(other);
    encrypter.write(bufferOf(sampleBytes(64).substr(32)));
    encrypter.end();
    EXPECT_EQ(one.body().content + other.body().content, encrypted(aes128, sampleBytes(64)));
    EXPECT_EQ(one.body().ends, 0);
    EXPECT_EQ(other.body().ends, 1);
}

TEST(Targets, CanBeStreamsOfTheSameKind) {
    MemoryMediaOut clear;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, clear);
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, decrypter);
    for (int i = 0; i < 100; ++i) {
        encrypter.write(bufferOf(sampleBytes(777)));
    }
    encrypter.end();
    std::string all;
    for (int i = 0; i < 100; ++i) {
        all += sampleBytes(777);
    }
    EXPECT_TRUE(textOf(clear.content()) == all);
    EXPECT_TRUE(clear.ended());
}

TEST(Handles, ShareTheBody) {
    Recording target;
    auto one = streamTo<EncrypterMediaOut>(aes128, target);
    EncrypterMediaOut copy(one);
    EncrypterMediaOut assigned(des.cipher, keyFor(des), ivFor(des));
    assigned = one;
    const MediaOut base = one;
    one.write(bufferOf("bo"));
    copy.write(bufferOf("d"));
    assigned.write(bufferOf("y"));
    MediaOut(base).end();
    EXPECT_EQ(target.body().content, encrypted(aes128, "body"));

    MemoryMediaOut clear;
    auto decrypter = streamTo<DecrypterMediaOut>(aes128, clear);
    DecrypterMediaOut other(decrypter);
    DecrypterMediaOut third(des.cipher, keyFor(des), ivFor(des));
    third = other;
    third.write(bufferOf(target.body().content));
    decrypter.end();
    EXPECT_EQ(textOf(clear.content()), "body");
}

TEST(Handles, AreDecorators) {
    static_assert(std::is_base_of_v<MediaOutDecorator, EncrypterMediaOut> &&
                  std::is_base_of_v<MediaOutDecorator, DecrypterMediaOut>);
    static_assert(std::is_base_of_v<Norvane::MediaOutDecoratorImpl, EncrypterMediaOutImpl> &&
                  std::is_base_of_v<Norvane::MediaOutDecoratorImpl, DecrypterMediaOutImpl>);
    EncrypterMediaOut encrypter(aes128.cipher, keyFor(aes128), ivFor(aes128));
    EXPECT_NE(dynamic_cast<EncrypterMediaOutImpl*>(encrypter.operator->()), nullptr);
    EXPECT_THROW(encrypter.attach(encrypter), Norvane::MediaException);
    DecrypterMediaOut decrypter(aes128.cipher, keyFor(aes128), ivFor(aes128));
    EXPECT_THROW(decrypter.attach(decrypter), Norvane::MediaException);
    EXPECT_THROW(static_cast<void>(encrypter.tell()), Norvane::MediaException);
    EXPECT_THROW(encrypter.setpos(0), Norvane::MediaException);
}

TEST(Handles, OperationsKeepTheirSlots) {
    using Write = void (EncrypterMediaOutImpl::*)(const unsigned char*, unsigned int);
    EXPECT_EQ(slotOf(static_cast<Write>(&EncrypterMediaOutImpl::write)), 3U);
    EXPECT_EQ(slotOf(&EncrypterMediaOutImpl::end), 4U);
    EXPECT_EQ(slotOf(&EncrypterMediaOutImpl::attach), 8U);
    EXPECT_EQ(slotOf(&EncrypterMediaOutImpl::detach), 9U);
}

TEST(Handles, TheCharacterSetIsPassedOn) {
    class Listening : public RecordingImpl {
    public:
        void characterSet(const std::string& name) override { lastName = name; }
        std::string lastName;
    };
    MediaOut target(Norvane::makeReference<Listening, Norvane::MediaOutImpl>());
    auto encrypter = streamTo<EncrypterMediaOut>(aes128, target);
    encrypter.characterSet("UTF-8");
    EXPECT_EQ(dynamic_cast<Listening&>(*target.operator->()).lastName, "UTF-8");
}

} // namespace
