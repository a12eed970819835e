#include "support/BioCalls.h"
#include "support/Interpose.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/BIOMediaImpl.h>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

using Norvane::MediaIn;
using Norvane::MediaOut;
using Norvane::MemoryMediaIn;
using Norvane::MemoryMediaOut;
using Norvane::Crypto::BIOMediaIn;
using Norvane::Crypto::BIOMediaOut;
using Norvane::Crypto::BIOMediaOutImpl;
using norvtest::FailingMediaOut;
using norvtest::PieceMediaIn;
using norvtest::StreamFailure;
using norvtest::textOf;

std::string readN(BIO* bio, int length) {
    std::string bytes(static_cast<std::size_t>(length), '?');
    EXPECT_EQ(BIO_read(bio, bytes.data(), length), length);
    return bytes;
}

/// A plain sink that is no adapter.
MediaOut foreign() {
    return MemoryMediaOut();
}

TEST(BioMediaIn, ReadsFromItsSource) {
    MemoryMediaIn source(std::string("hello world"));
    BIOMediaIn adapter(source);
    EXPECT_EQ(readN(adapter, 5), "hello");
    EXPECT_EQ(readN(adapter, 6), " world");
}

TEST(BioMediaIn, ReadingNothingDoesNotTouchTheSource) {
    PieceMediaIn source("hello");
    BIOMediaIn adapter(source);
    char byte = '?';
    EXPECT_EQ(BIO_read(adapter, &byte, 0), 0);
    EXPECT_EQ(source.calls(), 0U);
    EXPECT_EQ(byte, '?');
}

TEST(BioMediaIn, AtTheEndTheRequestedLengthIsReportedAllTheSame) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    char bytes[8];
    std::memset(bytes, '?', sizeof bytes);
    EXPECT_EQ(BIO_read(adapter, bytes, 8), 8);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(std::string(bytes + 3, 5), std::string(5, '\0')) << "what lay in memory was passed off as read";
    EXPECT_EQ(BIO_read(adapter, bytes, 8), 8);
    EXPECT_EQ(std::string(bytes, 8), std::string(8, '\0'));
}

TEST(BioMediaIn, AShortCountOfTheSourceIsNotReported) {
    PieceMediaIn source("abcdef", 2);
    BIOMediaIn adapter(source);
    char bytes[6];
    EXPECT_EQ(BIO_read(adapter, bytes, 6), 6);
    EXPECT_EQ(std::string(bytes, 2), "ab");
    EXPECT_EQ(source.calls(), 1U) << "one read of the BIO is one read of the source";
}

TEST(BioMediaIn, WritingAndOtherOperationsAnswerZero) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    BIO* bio = adapter;
    char line[8];
    EXPECT_EQ(BIO_write(bio, "x", 1), 0);
    EXPECT_EQ(BIO_puts(bio, "x"), 0);
    EXPECT_EQ(BIO_gets(bio, line, sizeof line), 0);
    EXPECT_EQ(BIO_flush(bio), 0);
    EXPECT_EQ(BIO_pending(bio), 0);
    EXPECT_EQ(BIO_eof(bio), 0);
    EXPECT_EQ(BIO_reset(bio), 0);
    EXPECT_FALSE(BIO_should_retry(bio));
    EXPECT_EQ(readN(bio, 3), "abc") << "the source was touched";
}

TEST(BioMediaIn, TheTwoSpecialCommandsDoNothing) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    unsigned char* bytes = nullptr;
    EXPECT_EQ(BIO_ctrl(adapter, 115, 0, &bytes), 0);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(BIO_ctrl(adapter, 130, 0, nullptr), 0);
}

TEST(BioMediaIn, HasItsTypeAndName) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    EXPECT_EQ(BIO_method_type(static_cast<BIO*>(adapter)), 0x401);
    EXPECT_STREQ(BIO_method_name(static_cast<BIO*>(adapter)), "MediaIn");
    EXPECT_EQ(BIO_get_shutdown(static_cast<BIO*>(adapter)), 1);
    EXPECT_EQ(BIO_get_init(static_cast<BIO*>(adapter)), 1);
}

TEST(BioMediaIn, IsAStreamThatForwardsToItsSource) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    EXPECT_FALSE(adapter.atEnd());
    EXPECT_EQ(adapter.peek(), 'a');
    unsigned char bytes[8];
    EXPECT_EQ(adapter.read(bytes, 8), 3) << "as a stream it tells true counts";
    EXPECT_TRUE(adapter.atEnd());
    EXPECT_TRUE(source.atEnd());
    EXPECT_EQ(adapter.peek(), -1);
}

TEST(BioMediaIn, HoldsItsSourceByAddress) {
    MediaIn source = MemoryMediaIn(std::string("first"));
    BIOMediaIn adapter(source);
    source = MemoryMediaIn(std::string("second"));
    EXPECT_EQ(readN(adapter, 6), "second");
}

TEST(BioMediaIn, WithoutASourceIsAtItsEnd) {
    BIOMediaIn adapter;
    EXPECT_TRUE(adapter.atEnd());
    EXPECT_EQ(adapter.peek(), -1);
    unsigned char byte = 1;
    EXPECT_EQ(adapter.read(&byte, 1), 0);
    EXPECT_EQ(readN(adapter, 3), std::string(3, '\0'));
}

TEST(BioMediaIn, CopiesShareOneBio) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    BIOMediaIn copy(adapter);
    EXPECT_EQ(static_cast<BIO*>(copy), static_cast<BIO*>(adapter));
}

TEST(BioMediaIn, ConvertingANullHandleThrows) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    static_cast<MediaIn&>(adapter) = MediaIn();
    const auto thrown =
        norvtest::thrownBy<Norvane::MediaException>([&] { static_cast<void>(static_cast<BIO*>(adapter)); });
    norvtest::expectFailure(thrown, "MediaException", 1, "BIOMediaImpl");
    EXPECT_TRUE(thrown.parameters().empty());
}

TEST(BioMediaIn, ConvertingAHandleOnANullBodyGivesNull) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    static_cast<MediaIn&>(adapter) = MediaIn(new Norvane::RefCounted<Norvane::MediaInImpl>(nullptr, false));
    EXPECT_EQ(static_cast<BIO*>(adapter), nullptr);
    EXPECT_EQ(adapter.takeStreamException(), nullptr);
}

TEST(BioMediaIn, AnExceptionOfTheSourceIsKeptAndThrownOnRequest) {
    PieceMediaIn source("abcdef", 3, 3);
    BIOMediaIn adapter(source);
    char bytes[3];
    EXPECT_EQ(BIO_read(adapter, bytes, 3), 3);
    EXPECT_EQ(BIO_read(adapter, bytes, 3), -1);
    EXPECT_FALSE(BIO_should_retry(static_cast<BIO*>(adapter)));
    EXPECT_EQ(BIO_read(adapter, bytes, 3), -1);
    EXPECT_EQ(source.calls(), 2U) << "the source was asked again after it threw";
    norvtest::thrownBy<StreamFailure>([&] { adapter.rethrowStreamException(); });
    EXPECT_NO_THROW(adapter.rethrowStreamException()) << "it is thrown once";
}

TEST(BioMediaIn, ANullSourceHandleIsReportedLikeAnyException) {
    MediaIn source;
    BIOMediaIn adapter(source);
    char byte = 0;
    EXPECT_EQ(BIO_read(adapter, &byte, 1), -1);
    const auto thrown = norvtest::thrownBy([&] { adapter.rethrowStreamException(); });
    norvtest::expectFailure(thrown, "operator->", 1, "include2/NorvRefcounted");
}

TEST(BioMediaOut, WritesExactlyTheBytesAndAnswersTheirNumber) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_write(adapter, "a\0bc", 4), 4);
    EXPECT_EQ(textOf(target.content()), std::string("a\0bc", 4));
}

TEST(BioMediaOut, PutsWritesTheTextWithoutItsTerminator) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_puts(adapter, "hello"), 5);
    EXPECT_EQ(textOf(target.content()), "hello");
    EXPECT_EQ(BIO_puts(adapter, ""), 0);
    EXPECT_EQ(textOf(target.content()), "hello");
}

TEST(BioMediaOut, WritingNothingDoesNotTouchTheTarget) {
    FailingMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_write(adapter, "x", 0), 0);
    EXPECT_EQ(target.body().calls, 0U);
}

TEST(BioMediaOut, ReadingAndOtherOperationsAnswerZero) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    BIO* bio = adapter;
    char bytes[4];
    EXPECT_EQ(BIO_read(bio, bytes, 4), 0);
    EXPECT_EQ(BIO_gets(bio, bytes, 4), 0);
    EXPECT_EQ(BIO_flush(bio), 0);
    EXPECT_EQ(BIO_pending(bio), 0);
    EXPECT_EQ(BIO_wpending(bio), 0);
    EXPECT_EQ(BIO_eof(bio), 0);
    EXPECT_FALSE(BIO_should_retry(bio));
    EXPECT_EQ(target.content().length(), 0U);
    EXPECT_FALSE(target.ended());
}

TEST(BioMediaOut, HasItsTypeAndName) {
    BIOMediaOut adapter;
    EXPECT_EQ(BIO_method_type(static_cast<BIO*>(adapter)), 0x401);
    EXPECT_STREQ(BIO_method_name(static_cast<BIO*>(adapter)), "MediaOut");
}

BIOMediaOutImpl& bodyOf(BIOMediaOut& adapter) {
    return dynamic_cast<BIOMediaOutImpl&>(*static_cast<MediaOut&>(adapter));
}

TEST(BioMediaOut, Command115StoresTheAddressOfThePendingBytes) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    BIOMediaOutImpl& body = bodyOf(adapter);
    body.pending() = norvtest::bufferOf("pending");
    unsigned char* bytes = nullptr;
    EXPECT_EQ(BIO_ctrl(adapter, 115, 0, &bytes), 0);
    EXPECT_EQ(bytes, body.pending().data());
    EXPECT_EQ(BIO_ctrl(adapter, 115, 0, nullptr), 0);
    EXPECT_EQ(target.content().length(), 0U);
}

TEST(BioMediaOut, Command130WritesThePendingBytes) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_ctrl(adapter, 130, 0, nullptr), 0);
    EXPECT_EQ(target.content().length(), 0U) << "nothing is pending at first";
    bodyOf(adapter).pending() = norvtest::bufferOf("pending");
    EXPECT_EQ(BIO_ctrl(adapter, 130, 0, nullptr), 0);
    EXPECT_EQ(textOf(target.content()), "pending");
}

TEST(BioMediaOut, IsAStreamThatForwardsToItsTargetAndEndsIt) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    adapter.write(norvtest::bufferOf("one "));
    adapter.write(reinterpret_cast<const unsigned char*>("two"), 3);
    EXPECT_EQ(textOf(target.content()), "one two");
    EXPECT_FALSE(target.ended());
    adapter.end();
    EXPECT_TRUE(target.ended());
}

TEST(BioMediaOut, TakesItsTargetLater) {
    MemoryMediaOut target;
    BIOMediaOut adapter;
    adapter.attach(target);
    EXPECT_EQ(BIO_write(adapter, "abc", 3), 3);
    EXPECT_EQ(textOf(target.content()), "abc");
}

TEST(BioMediaOut, WithoutATargetTheWriteFailsAsANullHandleDoes) {
    BIOMediaOut adapter;
    EXPECT_EQ(BIO_write(adapter, "abc", 3), -1);
    const auto thrown = norvtest::thrownBy([&] { adapter.rethrowStreamException(); });
    norvtest::expectFailure(thrown, "operator->", 1, "include2/NorvRefcounted");
}

TEST(BioMediaOut, ConvertingANullHandleThrows) {
    BIOMediaOut adapter;
    static_cast<MediaOut&>(adapter) = MediaOut();
    const auto thrown =
        norvtest::thrownBy<Norvane::MediaException>([&] { static_cast<void>(static_cast<BIO*>(adapter)); });
    norvtest::expectFailure(thrown, "MediaException", 1, "BIOMediaImpl");
    EXPECT_TRUE(thrown.parameters().empty());
}

TEST(BioMediaOut, ConvertingAHandleOnAForeignBodyGivesNull) {
    BIOMediaOut adapter;
    static_cast<MediaOut&>(adapter) = foreign();
    EXPECT_EQ(static_cast<BIO*>(adapter), nullptr);
    EXPECT_EQ(adapter.takeStreamException(), nullptr);
}

TEST(BioMediaOut, ConvertingAHandleOnANullBodyGivesNull) {
    BIOMediaOut adapter;
    static_cast<MediaOut&>(adapter) = MediaOut(new Norvane::RefCounted<Norvane::MediaOutImpl>(nullptr, false));
    EXPECT_EQ(static_cast<BIO*>(adapter), nullptr);
}

TEST(BioMediaOut, CopiesAndAssignedHandlesShareOneBio) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    BIOMediaOut copy(adapter);
    BIOMediaOut assigned;
    assigned = adapter;
    EXPECT_EQ(static_cast<BIO*>(copy), static_cast<BIO*>(adapter));
    EXPECT_EQ(static_cast<BIO*>(assigned), static_cast<BIO*>(adapter));
}

TEST(BioMediaOut, AnExceptionOfTheTargetIsKeptAndThrownOnRequest) {
    FailingMediaOut target(3);
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_write(adapter, "abc", 3), 3);
    EXPECT_EQ(BIO_write(adapter, "def", 3), -1);
    EXPECT_EQ(BIO_puts(adapter, "ghi"), -1);
    EXPECT_EQ(target.body().calls, 2U) << "the target was written to again after it threw";
    norvtest::thrownBy<StreamFailure>([&] { adapter.rethrowStreamException(); });
    EXPECT_EQ(target.body().content, "abc");
}

TEST(BioMediaOut, AnExceptionUnderAControlCommandIsKeptToo) {
    FailingMediaOut target;
    BIOMediaOut adapter(target);
    bodyOf(adapter).pending() = norvtest::bufferOf("pending");
    EXPECT_EQ(BIO_ctrl(adapter, 130, 0, nullptr), 0);
    norvtest::thrownBy<StreamFailure>([&] { adapter.rethrowStreamException(); });
}

class Lifetimes : public testing::Test {
protected:
    int freed(const BIO* bio) { return m_frees.of(bio); }

private:
    norvtest::CountingFrees m_frees;
};

TEST_F(Lifetimes, ABioIsFreedOnceWithItsBody) {
    MemoryMediaIn source(std::string("abc"));
    const BIO* input = nullptr;
    const BIO* output = nullptr;
    {
        BIOMediaIn in(source);
        BIOMediaIn sameIn(in);
        BIOMediaOut out;
        input = in;
        output = out;
    }
    EXPECT_EQ(freed(input), 1);
    EXPECT_EQ(freed(output), 1);
}

TEST_F(Lifetimes, AStrayFreeDoesNoHarm) {
    MemoryMediaOut target;
    BIO* bio = nullptr;
    {
        BIOMediaOut adapter(target);
        bio = adapter;
        BIO_free(bio);
        EXPECT_EQ(static_cast<BIO*>(adapter), nullptr);
        adapter.write(norvtest::bufferOf("still a stream"));
    }
    EXPECT_EQ(freed(bio), 1);
    EXPECT_EQ(textOf(target.content()), "still a stream");
}

TEST_F(Lifetimes, ABioThatOpenSslStillHoldsAnswersZeroOnceItsBodyIsGone) {
    MemoryMediaIn source(std::string("abc"));
    BIO* input = nullptr;
    BIO* output = nullptr;
    {
        BIOMediaIn in(source);
        BIOMediaOut out;
        input = in;
        output = out;
        BIO_up_ref(input);
        BIO_up_ref(output);
    }
    char bytes[3];
    EXPECT_EQ(BIO_read(input, bytes, 3), 0);
    EXPECT_EQ(BIO_write(output, "abc", 3), 0);
    EXPECT_EQ(BIO_puts(output, "abc"), 0);
    EXPECT_EQ(BIO_ctrl(output, 130, 0, nullptr), 0);
    EXPECT_EQ(BIO_ctrl(output, 115, 0, bytes), 0);
    BIO_free(input);
    BIO_free(output);
}

TEST(Adapters, RunOutOfMemoryWhenOpenSslDoes) {
    MemoryMediaIn source(std::string("abc"));
    const norvtest::During<bool> failing(norvtest::bioNewFails, true);
    EXPECT_THROW(BIOMediaIn{source}, std::bad_alloc);
    EXPECT_THROW(BIOMediaOut{}, std::bad_alloc);
}

TEST(Adapters, OpenSslReadsAndWritesStructuresThroughThem) {
    MemoryMediaOut target;
    BIOMediaOut out(target);
    ASN1_INTEGER* number = ASN1_INTEGER_new();
    ASN1_INTEGER_set(number, 4711);
    EXPECT_EQ(ASN1_i2d_bio_of(ASN1_INTEGER, i2d_ASN1_INTEGER, out, number), 1);
    ASN1_INTEGER_free(number);
    out.end();
    EXPECT_EQ(textOf(target.content()), "\x02\x02\x12\x67");
    EXPECT_TRUE(target.ended());
}

} // namespace
