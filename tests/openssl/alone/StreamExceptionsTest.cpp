// How exceptions of streams cross OpenSSL, and the source that reports true counts.

#include "openssl/StreamExceptions.h"
#include "openssl/TrueCountBio.h"
#include "support/Interpose.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/BIOMediaImpl.h>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace {

bool s_newFails = false;

} // namespace

extern "C" BIO* BIO_new(const BIO_METHOD* method) {
    return s_newFails ? nullptr : norvtest::next<&BIO_new>("BIO_new")(method);
}

namespace {

using Norvane::MemoryMediaIn;
using Norvane::MemoryMediaOut;
using Norvane::Crypto::BIOMediaIn;
using Norvane::Crypto::BIOMediaOut;
using Norvane::Crypto::openssl::rethrowingStreamErrors;
using Norvane::Crypto::openssl::trueCountBio;
using norvtest::FailingMediaOut;
using norvtest::PieceMediaIn;
using norvtest::StreamFailure;

struct FreeInteger {
    void operator()(ASN1_INTEGER* integer) const noexcept { ASN1_INTEGER_free(integer); }
};
using IntegerPtr = std::unique_ptr<ASN1_INTEGER, FreeInteger>;

IntegerPtr integerOf(long value) {
    IntegerPtr integer(ASN1_INTEGER_new());
    ASN1_INTEGER_set(integer.get(), value);
    return integer;
}

int writeDer(BIO* out, ASN1_INTEGER* integer) {
    return ASN1_i2d_bio_of(ASN1_INTEGER, i2d_ASN1_INTEGER, out, integer);
}

IntegerPtr readDer(BIO* in) {
    return IntegerPtr(ASN1_d2i_bio_of(ASN1_INTEGER, ASN1_INTEGER_new, d2i_ASN1_INTEGER, in, nullptr));
}

TEST(RethrowingStreamErrors, AnswersWhatTheCallAnswers) {
    MemoryMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(rethrowingStreamErrors(adapter, [&] { return writeDer(adapter, integerOf(5).get()); }), 1);
    EXPECT_EQ(norvtest::textOf(target.content()), "\x02\x01\x05");
}

TEST(RethrowingStreamErrors, ThrowsTheStreamsOwnExceptionWithTheQueueEmpty) {
    FailingMediaOut target;
    BIOMediaOut adapter(target);
    ERR_raise(ERR_LIB_ASN1, ERR_R_NESTED_ASN1_ERROR);
    const auto thrown = norvtest::thrownBy<StreamFailure>(
        [&] { rethrowingStreamErrors(adapter, [&] { return writeDer(adapter, integerOf(5).get()); }); });
    EXPECT_EQ(thrown.where(), "the stream");
    EXPECT_EQ(thrown.code(), 7);
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(RethrowingStreamErrors, PassesOnExceptionsOfAnyClass) {
    struct Odd : Norvane::MediaOutImpl {
        using MediaOutImpl::write;
        void write(const unsigned char* /*data*/, unsigned int /*length*/) override { throw std::runtime_error("odd"); }
    };
    BIOMediaOut adapter(Norvane::MediaOut(Norvane::makeReference<Odd, Norvane::MediaOutImpl>()));
    EXPECT_THROW(rethrowingStreamErrors(adapter, [&] { return writeDer(adapter, integerOf(5).get()); }),
                 std::runtime_error);
}

TEST(RethrowingStreamErrors, AFailureOfOpenSslItselfIsLeftToTheCaller) {
    MemoryMediaIn source(std::string("no integer"));
    BIOMediaIn adapter(source);
    const IntegerPtr read = rethrowingStreamErrors(adapter, [&] { return readDer(adapter); });
    EXPECT_EQ(read, nullptr);
    EXPECT_NE(ERR_peek_error(), 0U);
    ERR_clear_error();
}

TEST(RethrowingStreamErrors, ThrowsWhatAPlainWriteOrFlushBeforeItKept) {
    FailingMediaOut target;
    BIOMediaOut adapter(target);
    EXPECT_EQ(BIO_write(adapter, "abc", 3), -1);
    norvtest::thrownBy<StreamFailure>(
        [&] { rethrowingStreamErrors(adapter, [&] { return BIO_flush(static_cast<BIO*>(adapter)); }); });
    EXPECT_EQ(target.body().calls, 1U);
}

TEST(RethrowingStreamErrors, TheAdapterWorksAgainAfterwards) {
    PieceMediaIn source("abcdef", 3, 3);
    BIOMediaIn adapter(source);
    char bytes[3];
    EXPECT_EQ(BIO_read(adapter, bytes, 3), 3);
    norvtest::thrownBy<StreamFailure>(
        [&] { rethrowingStreamErrors(adapter, [&] { return BIO_read(adapter, bytes, 3); }); });
    norvtest::thrownBy<StreamFailure>(
        [&] { rethrowingStreamErrors(adapter, [&] { return BIO_read(adapter, bytes, 3); }); });
    EXPECT_EQ(source.calls(), 3U);
}

TEST(RethrowingStreamErrors, AnOwningAnswerGoesWhenTheStreamThrew) {
    static int destroyed = 0;
    struct Counting {
        void operator()(int* number) const noexcept {
            ++destroyed;
            delete number;
        }
    };
    FailingMediaOut target;
    BIOMediaOut adapter(target);
    norvtest::thrownBy<StreamFailure>([&] {
        rethrowingStreamErrors(adapter, [&] {
            BIO_write(adapter, "abc", 3);
            return std::unique_ptr<int, Counting>(std::make_unique<int>(1).release());
        });
    });
    EXPECT_EQ(destroyed, 1);
}

TEST(TrueCounts, AreShortAtTheEndAndZeroAfterIt) {
    MemoryMediaIn source(std::string("abcde"));
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    char bytes[8];
    EXPECT_EQ(BIO_read(bio.get(), bytes, 3), 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(BIO_read(bio.get(), bytes, 8), 2);
    EXPECT_EQ(std::string(bytes, 2), "de");
    EXPECT_EQ(BIO_read(bio.get(), bytes, 8), 0);
    EXPECT_EQ(BIO_read(bio.get(), bytes, 8), 0);
    EXPECT_FALSE(BIO_should_retry(bio.get()));
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(TrueCounts, AreFullWhileASlowSourceGoesOn) {
    PieceMediaIn source("abcde", 1);
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    char bytes[8];
    EXPECT_EQ(BIO_read(bio.get(), bytes, 3), 3);
    EXPECT_EQ(std::string(bytes, 3), "abc");
    EXPECT_EQ(BIO_read(bio.get(), bytes, 8), 2);
}

TEST(TrueCounts, ReadingNothingDoesNotTouchTheSource) {
    PieceMediaIn source("abc");
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    char byte = 0;
    EXPECT_EQ(BIO_read(bio.get(), &byte, 0), 0);
    EXPECT_EQ(source.calls(), 0U);
}

TEST(TrueCounts, AStreamThatClaimsMoreThanItWasAskedForIsNotBelieved) {
    struct Boasting : Norvane::MediaInImpl {
        using MediaInImpl::read;
        bool atEnd() const override { return false; }
        int peek() const override { return 'x'; }
        int read(unsigned char* out, unsigned int length) override {
            std::fill_n(out, length, static_cast<unsigned char>('x'));
            return static_cast<int>(length) + 1000;
        }
    };
    Norvane::MediaIn source(Norvane::makeReference<Boasting, Norvane::MediaInImpl>());
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    char bytes[4];
    EXPECT_EQ(BIO_read(bio.get(), bytes, 4), 4);
}

TEST(TrueCounts, ADecoderSeesWhereTheSourceEnds) {
    // Announces two octets and brings one: through the adapter alone this is 0x0500.
    MemoryMediaIn cut(std::string("\x02\x02\x05"));
    BIOMediaIn adapter(cut);
    const auto bio = trueCountBio(adapter);
    EXPECT_EQ(readDer(bio.get()), nullptr);
    ERR_clear_error();
}

TEST(TrueCounts, ADecoderReadsAValueThatComesByteByByte) {
    PieceMediaIn source(std::string("\x02\x02\x12\x67"), 1);
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    const IntegerPtr read = readDer(bio.get());
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(ASN1_INTEGER_get(read.get()), 4711);
}

TEST(TrueCounts, AnAnnouncedGigabyteEndsWithTheSource) {
    PieceMediaIn source(std::string("\x04\x84\x40\x00\x00\x00xxxx", 10));
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    EXPECT_EQ(readDer(bio.get()), nullptr);
    EXPECT_LE(source.calls(), 8U);
    ERR_clear_error();
}

TEST(TrueCounts, AnExceptionOfTheSourceIsThrownByTheAdaptersHelper) {
    PieceMediaIn source("\x04\x10 0123456789abcdef", 4, 8);
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    norvtest::thrownBy<StreamFailure>([&] { rethrowingStreamErrors(adapter, [&] { return readDer(bio.get()); }); });
    EXPECT_TRUE(norvtest::errorQueueIsEmpty());
}

TEST(TrueCounts, OtherOperationsAnswerNothing) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    const auto bio = trueCountBio(adapter);
    EXPECT_EQ(BIO_pending(bio.get()), 0);
    EXPECT_EQ(BIO_eof(bio.get()), 0);
    EXPECT_LE(BIO_write(bio.get(), "x", 1), 0);
    ERR_clear_error();
    char bytes[3];
    EXPECT_EQ(BIO_read(bio.get(), bytes, 3), 3);
}

TEST(TrueCounts, NeedAnAdapterThatReads) {
    BIOMediaOut output;
    EXPECT_EQ(trueCountBio(output), nullptr);
    EXPECT_EQ(trueCountBio(nullptr), nullptr);
    const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new(BIO_s_mem()), BIO_free); // type 0x401 as well
    EXPECT_EQ(trueCountBio(memory.get()), nullptr);
}

TEST(TrueCounts, RunOutOfMemoryWhenOpenSslDoes) {
    MemoryMediaIn source(std::string("abc"));
    BIOMediaIn adapter(source);
    const norvtest::During<bool> failing(s_newFails, true);
    EXPECT_THROW(trueCountBio(adapter), std::bad_alloc);
}

} // namespace
