#include "support/Grouping.h"
#include "support/Interpose.h"
#include "support/Slots.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/Hasher.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

int s_contexts = 0;
bool s_recording = false;
bool s_finalFails = false;
std::vector<std::size_t> s_updates;

} // namespace

extern "C" {

EVP_MD_CTX* EVP_MD_CTX_new() {
    ++s_contexts;
    return norvtest::next<&EVP_MD_CTX_new>("EVP_MD_CTX_new")();
}

void EVP_MD_CTX_free(EVP_MD_CTX* context) {
    --s_contexts;
    norvtest::next<&EVP_MD_CTX_free>("EVP_MD_CTX_free")(context);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t length) {
    if (s_recording) { // and the bytes are not looked at: tests announce some that are not there
        s_updates.push_back(length);
        return 1;
    }
    return norvtest::next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, data, length);
}

int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* digest, unsigned int* length) {
    if (s_finalFails) { // as releases of OpenSSL do that take a digest only once
        ERR_raise(ERR_LIB_EVP, EVP_R_FINAL_ERROR);
        return 0;
    }
    return norvtest::next<&EVP_DigestFinal_ex>("EVP_DigestFinal_ex")(context, digest, length);
}
}

namespace {

using Norvane::Buffer;
using Norvane::Crypto::Hasher;
using Norvane::Crypto::HasherMediaOut;
using Norvane::Crypto::RefHasher;
using norvtest::bufferOf;

static_assert(!std::is_copy_constructible_v<Hasher>);
static_assert(std::is_same_v<std::underlying_type_t<Hasher::Type>, int>);

const unsigned char* bytesOf(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

std::string hexOf(Hasher::Type type, const std::string& text) {
    RefHasher hasher(type);
    hasher->update(text);
    hasher->finalize();
    return hasher->digestAsHexString();
}

constexpr const char* sha256OfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* sha256OfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class Hashing : public testing::Test {
protected:
    Hashing() { Norvane::Crypto::initialize(); }
    ~Hashing() override { EXPECT_TRUE(norvtest::errorQueueIsEmpty()); }
};

struct Vector {
    Hasher::Type type;
    const char* name;
    const char* digestOfAbc;
};

void PrintTo(const Vector& vector, std::ostream* out) {
    *out << vector.name;
}

// Texts may be longer than a length of 32 bits tells: they are taken in pieces.
TEST_F(Hashing, LongTextsInPieces) {
    for (const std::size_t length : {1048575U, 1048576U, 1048577U, 3145728U, 3145733U}) {
        std::string text(length, 'a');
        for (std::size_t at = 0; at < length; at += 1000) {
            text[at] = static_cast<char>('b' + at % 23);
        }
        unsigned char digest[32];
        ASSERT_EQ(EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_sha256(), nullptr), 1);
        std::string expected;
        for (const unsigned char octet : digest) {
            constexpr const char* digits = "0123456789abcdef";
            expected += digits[octet >> 4U];
            expected += digits[octet & 15U];
        }
        EXPECT_EQ(hexOf(Hasher::SHA256, text), expected) << length;
    }
}

class Digests : public testing::TestWithParam<Vector> {};

TEST_P(Digests, GiveThePublishedDigestOfAbc) {
    Norvane::Crypto::initialize();
    RefHasher hasher(GetParam().type);
    hasher->update(std::string("abc"));
    hasher->finalize();
    EXPECT_EQ(hasher->digestAsHexString(), GetParam().digestOfAbc);
    EXPECT_EQ(hasher->digest().length(), std::string(GetParam().digestOfAbc).size() / 2);
    EXPECT_EQ(hasher->typeAsString(), GetParam().name);
    EXPECT_EQ(hasher->type(), GetParam().type);
}

// From RFC 1320, RFC 1321, FIPS 180-4, FIPS 202, RFC 7693, ISO/IEC 10118-3 and GB/T 32905.
INSTANTIATE_TEST_SUITE_P(
    Published, Digests,
    testing::Values(
        Vector{Hasher::MD4, "MD4", "a448017aaf21d8525fc10ae87aa6729d"},
        Vector{Hasher::MD5, "MD5", "900150983cd24fb0d6963f7d28e17f72"},
        Vector{Hasher::MD5_SHA1, "MD5-SHA1",
               "900150983cd24fb0d6963f7d28e17f72a9993e364706816aba3e25717850c26c9cd0d89d"},
        Vector{Hasher::RIPEMD160, "RIPEMD160", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
        Vector{Hasher::WHIRLPOOL, "whirlpool",
               "4e2448a4c6f486bb16b6562c73b4020bf3043e3a731bce721ae1b303d97e6d4c"
               "7181eebdb6c57e277d0e34957114cbd6c797fc9d95d8b582d225292076d4eef5"},
        Vector{Hasher::SHA1, "SHA1", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        Vector{Hasher::SHA224, "SHA224", "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
        Vector{Hasher::SHA256, "SHA256", sha256OfAbc},
        Vector{Hasher::SHA384, "SHA384",
               "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
        Vector{Hasher::SHA512, "SHA512",
               "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
               "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        Vector{Hasher::SHA512_224, "SHA512-224", "4634270f707b6a54daae7530460842e20e37ed265ceee9a43e8924aa"},
        Vector{Hasher::SHA512_256, "SHA512-256", "53048e2681941ef99b2e29b76b4c7dabe4c2d0c634fc6d46e0e2f13107e7af23"},
        Vector{Hasher::SHA3_224, "SHA3-224", "e642824c3f8cf24ad09234ee7d3c766fc9a3a5168d0c94ad73b46fdf"},
        Vector{Hasher::SHA3_256, "SHA3-256", "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532"},
        Vector{Hasher::SHA3_384, "SHA3-384",
               "ec01498288516fc926459f58e2c6ad8df9b473cb0fc08c2596da7cf0e49be4b298d88cea927ac7f539f1edf228376d25"},
        Vector{Hasher::SHA3_512, "SHA3-512",
               "b751850b1a57168a5693cd924b6b096e08f621827444f70d884f5d0240d2712e"
               "10e116e9192af3c91a7ec57647e3934057340b4cf408d5a56592f8274eec53f0"},
        Vector{Hasher::BLAKE2B512, "BLAKE2b512",
               "ba80a53f981c4d0d6a2797b69f12f6e94c212f14685ac4b74b12bb6fdbffa2d1"
               "7d87c5392aab792dc252d5de4533cc9518d38aa8dbf1925ab92386edd4009923"},
        Vector{Hasher::BLAKE2S256, "BLAKE2s256", "508c5e8c327c14e2e1a72ba34eeb452f37458b209ed63a294d999b4c86675982"},
        Vector{Hasher::SM3, "SM3", "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"}));

TEST_F(Hashing, AnyNumberOfADigestWillDo) {
    RefHasher hasher(static_cast<Hasher::Type>(NID_shake128));
    EXPECT_EQ(hasher->typeAsString(), "SHAKE128");
}

TEST_F(Hashing, NothingFedIsTheDigestOfNothing) {
    EXPECT_EQ(hexOf(Hasher::SHA256, ""), sha256OfNothing);
}

TEST_F(Hashing, AMillionBytesInOddPieces) {
    // FIPS 180-4's long message: a million times "a".
    RefHasher hasher(Hasher::SHA256);
    const std::string as(1000000, 'a');
    for (std::size_t at = 0, piece = 1; at < as.size(); at += piece, piece = piece % 997 + 13) {
        piece = std::min(piece, as.size() - at);
        hasher->update(bytesOf(as.data()) + at, static_cast<unsigned int>(piece));
    }
    hasher->finalize();
    EXPECT_EQ(hasher->digestAsHexString(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_F(Hashing, NullDataOrNoLengthChangesNothing) {
    RefHasher hasher(Hasher::SHA256);
    hasher->maximumInputData(3);
    hasher->update(nullptr, 5);
    hasher->update(bytesOf("x"), 0);
    hasher->update(std::string());
    hasher->update(Buffer());
    hasher->update(bytesOf("abc"), 3);
    hasher->finalize();
    EXPECT_EQ(hasher->digestAsHexString(), sha256OfAbc);
}

TEST_F(Hashing, BytesBeyondTheLimitAreDropped) {
    RefHasher hasher(Hasher::SHA256);
    hasher->maximumInputData(10);
    EXPECT_EQ(hasher->maximumInputData(), 10U);
    hasher->update(std::string("0123"));
    hasher->update(std::string("4567"));
    hasher->update(std::string("89xx"));
    hasher->update(std::string("more"));
    hasher->finalize();
    EXPECT_EQ(hasher->digestAsHexString(), hexOf(Hasher::SHA256, "0123456789"));
}

TEST_F(Hashing, ThereIsNoLimitAtFirst) {
    EXPECT_EQ(RefHasher(Hasher::SHA256)->maximumInputData(), 0U);
}

class Counts : public Hashing {
protected:
    Counts() {
        s_updates.clear();
        s_recording = true;
    }
    ~Counts() override { s_recording = false; }
};

TEST_F(Counts, AnExhaustedLimitStillCallsOpenSslWithNothing) {
    RefHasher hasher(Hasher::SHA256);
    hasher->maximumInputData(10);
    for (int i = 0; i < 4; ++i) {
        hasher->update(bytesOf("0123"), 4);
    }
    EXPECT_EQ(s_updates, (std::vector<std::size_t>{4, 4, 2, 0}));
}

TEST_F(Counts, CountAndLengthDoNotWrapAroundAtTheLimit) {
    RefHasher hasher(Hasher::SHA256);
    hasher->maximumInputData(0xFFFFFFFFU);
    hasher->update(bytesOf("x"), 0xFFFFFFF0U);
    hasher->update(bytesOf("x"), 0x20U); // 0x10 in 32 bits, which would be below the limit
    hasher->update(bytesOf("x"), 1U);
    EXPECT_EQ(s_updates, (std::vector<std::size_t>{0xFFFFFFF0U, 0xFU, 0U}));
}

TEST_F(Counts, TheCountDoesNotStartAnewAfterFourGigabytes) {
    RefHasher hasher(Hasher::SHA256);
    hasher->update(bytesOf("x"), 0xFFFFFFFFU);
    hasher->update(bytesOf("x"), 0x10U); // 0xF in 32 bits, which would be below the limit
    hasher->maximumInputData(100);
    hasher->update(bytesOf("x"), 50U);
    EXPECT_EQ(s_updates, (std::vector<std::size_t>{0xFFFFFFFFU, 0x10U, 0U}));
}

TEST_F(Counts, ALimitSetLaterCountsWhatCameBefore) {
    RefHasher hasher(Hasher::SHA256);
    hasher->update(bytesOf("0123456"), 7);
    hasher->maximumInputData(10);
    hasher->update(bytesOf("0123456"), 7);
    EXPECT_EQ(s_updates, (std::vector<std::size_t>{7, 3}));
}

TEST_F(Hashing, HexadecimalDigitsAreLowerCaseAndPadded) {
    // sha256sum of "146" starts with 0a.
    RefHasher hasher(Hasher::SHA256);
    hasher->update(std::string("146"));
    hasher->finalize();
    EXPECT_EQ(hasher->digest().at(0), 0x0a);
    EXPECT_EQ(hasher->digestAsHexString().substr(0, 2), "0a");
    EXPECT_EQ(hasher->digestAsHexString().size(), 64U);
}

TEST_F(Hashing, BeforeFinalizeThereIsNoDigest) {
    RefHasher hasher(Hasher::SHA256);
    hasher->update(std::string("abc"));
    EXPECT_EQ(hasher->digest().length(), 0U);
    EXPECT_EQ(hasher->digestAsHexString(), "");
}

TEST_F(Hashing, ASecondFinalizeThatFailsLeavesNoErrorAndAFirstOneDoes) {
    ERR_clear_error();
    const RefHasher again(Hasher::SHA256);
    again->finalize();
    s_finalFails = true;
    again->finalize();
    EXPECT_EQ(ERR_peek_error(), 0UL);
    const RefHasher first(Hasher::SHA256);
    first->finalize();
    s_finalFails = false;
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), EVP_R_FINAL_ERROR);
    ERR_clear_error();
}

TEST_F(Hashing, ASecondFinalizeAndALaterUpdateAreNotRefused) {
    RefHasher hasher(Hasher::SHA256);
    hasher->update(std::string("abc"));
    hasher->finalize();
    EXPECT_NO_THROW(hasher->finalize());
    EXPECT_NO_THROW(hasher->update(std::string("abc")));
    EXPECT_EQ(hasher->digest().length(), 32U);
}

TEST_F(Hashing, TheContextIsOpenSsls) {
    RefHasher hasher(Hasher::SHA384);
    EXPECT_EQ(EVP_MD_CTX_get_size(hasher->context()), 48);
    EXPECT_EQ(EVP_MD_CTX_get_type(hasher->context()), NID_sha384);
}

TEST_F(Hashing, UpdatesOfBuffersAndTextsGoThroughTheThirdForm) {
    class Listening : public Hasher {
    public:
        Listening() : Hasher(SHA256) {}
        using Hasher::update;
        void update(const unsigned char* data, unsigned int length) override {
            heard.append(reinterpret_cast<const char*>(data), length);
        }
        std::string heard;
    };
    Listening hasher;
    static_cast<Hasher&>(hasher).update(bufferOf("one "));
    static_cast<Hasher&>(hasher).update(std::string("two"));
    EXPECT_EQ(hasher.heard, "one two");
}

TEST_F(Hashing, VirtualOperationsStandInTheirOrder) {
    using norvtest::slotOf;
    EXPECT_EQ(slotOf<void (Hasher::*)(const Buffer&)>(&Hasher::update), 2U);
    EXPECT_EQ(slotOf<void (Hasher::*)(const std::string&)>(&Hasher::update), 3U);
    EXPECT_EQ(slotOf<void (Hasher::*)(const unsigned char*, unsigned int)>(&Hasher::update), 4U);
    EXPECT_EQ(slotOf(&Hasher::finalize), 5U);
    EXPECT_EQ(slotOf(&Hasher::digest), 6U);
}

std::string fed(void (*feed)(RefHasher&)) {
    RefHasher hasher(Hasher::SHA256);
    feed(hasher);
    hasher->finalize();
    return hasher->digestAsHexString();
}

TEST_F(Hashing, NumbersGoInAsTheyLieInMemory) {
    // On the little-endian machines that this runs on.
    EXPECT_EQ(fed([](RefHasher& h) { h << 1U; }), hexOf(Hasher::SHA256, std::string("\1\0\0\0", 4)));
    EXPECT_EQ(fed([](RefHasher& h) { h << 1L; }), hexOf(Hasher::SHA256, std::string("\1\0\0\0\0\0\0\0", 8)));
    EXPECT_EQ(fed([](RefHasher& h) { h << -2L; }),
              hexOf(Hasher::SHA256, std::string("\xfe\xff\xff\xff\xff\xff\xff\xff", 8)));
    EXPECT_EQ(fed([](RefHasher& h) { h << 0x0102030405060708UL; }),
              hexOf(Hasher::SHA256, std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8)));
    EXPECT_EQ(fed([](RefHasher& h) { h << static_cast<unsigned short>(0x0102); }),
              hexOf(Hasher::SHA256, std::string("\x02\x01", 2)));
}

TEST_F(Hashing, CharactersBuffersAndTextsGoInAsBytes) {
    EXPECT_EQ(fed([](RefHasher& h) { h << 'a' << static_cast<unsigned char>('b') << std::string("c"); }), sha256OfAbc);
    EXPECT_EQ(fed([](RefHasher& h) { h << bufferOf("ab") << 'c'; }), sha256OfAbc);
    EXPECT_EQ(fed([](RefHasher& h) { h << std::string("a\0b", 3); }), hexOf(Hasher::SHA256, std::string("a\0b", 3)));
}

TEST_F(Hashing, TheOperatorsReturnTheHandleThemselves) {
    RefHasher hasher(Hasher::SHA256);
    EXPECT_EQ(&(hasher << 'a'), &hasher);
    EXPECT_EQ(&(hasher << std::string("b")), &hasher);
}

TEST_F(Hashing, FeedingANullHandleThrows) {
    RefHasher none;
    norvtest::expectFailure(norvtest::thrownBy([&] { none << 'a'; }), "operator->", 1, "include2/NorvRefcounted");
    norvtest::expectFailure(norvtest::thrownBy([&] { none << std::string("a"); }), "operator->", 1,
                            "include2/NorvRefcounted");
    norvtest::expectFailure(norvtest::thrownBy([&] { none << Buffer(); }), "operator->", 1, "include2/NorvRefcounted");
}

TEST_F(Hashing, HandlesShareOneHasher) {
    RefHasher hasher(Hasher::SHA256);
    RefHasher copy(hasher);
    hasher << 'a';
    copy << 'b' << 'c';
    hasher->finalize();
    EXPECT_EQ(copy->digestAsHexString(), sha256OfAbc);
}

TEST_F(Hashing, ANumberThatIsNoDigestThrowsWithTheNumber) {
    // 19 is RSA, which has a short name and is no digest.
    const auto thrown = norvtest::thrownBy([] { const RefHasher hasher(static_cast<Hasher::Type>(19)); });
    norvtest::expectFailure(thrown, "Crypto::Hasher", 4, "Hasher");
    EXPECT_EQ(norvtest::detailOf(thrown), "Unrecognized DigestType 0x13");
}

TEST_F(Hashing, ANumberWithoutANameThrowsWithTheNumber) {
    const auto thrown = norvtest::thrownBy([] { const RefHasher hasher(static_cast<Hasher::Type>(0x7ABCDEF)); });
    norvtest::expectFailure(thrown, "Crypto::Hasher", 4, "Hasher");
    EXPECT_EQ(norvtest::detailOf(thrown), "Unrecognized DigestType 0x7abcdef");
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([] { const RefHasher hasher(static_cast<Hasher::Type>(0)); })),
              "Unrecognized DigestType 0x0");
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([] { const RefHasher hasher(static_cast<Hasher::Type>(-1)); })),
              "Unrecognized DigestType 0xffffffff");
}

TEST_F(Hashing, TheNumberIsNotGroupedWhateverTheHostsLocale) {
    const norvtest::GroupingDigits grouping;
    const auto thrown = norvtest::thrownBy([] { const RefHasher hasher(static_cast<Hasher::Type>(0x7ABCDEF)); });
    EXPECT_EQ(norvtest::detailOf(thrown), "Unrecognized DigestType 0x7abcdef");
}

TEST_F(Hashing, ADigestThatDoesNotStartThrowsWithoutADetail) {
    ASSERT_EQ(EVP_set_default_properties(nullptr, "fips=yes"), 1);
    const auto thrown = norvtest::thrownBy([] { const RefHasher hasher(Hasher::SHA256); });
    ASSERT_EQ(EVP_set_default_properties(nullptr, ""), 1);
    norvtest::expectFailure(thrown, "Crypto::Hasher", 4, "Hasher");
    EXPECT_TRUE(thrown.parameters().empty());
    EXPECT_NE(ERR_peek_error(), 0U) << "an exception without a detail leaves the queue as it is";
    ERR_clear_error();
}

TEST_F(Hashing, AConstructorThatThrowsReleasesItsContext) {
    const RefHasher first(Hasher::SHA256); // leaves a context to the process, of which later ones are copies
    const int before = s_contexts;
    EXPECT_THROW(RefHasher(static_cast<Hasher::Type>(19)), Norvane::Exception);
    EXPECT_EQ(s_contexts, before);
    {
        const RefHasher hasher(Hasher::SHA256);
        EXPECT_EQ(s_contexts, before + 1);
    }
    EXPECT_EQ(s_contexts, before);
}

TEST_F(Hashing, AStreamDigestsWhatIsWritten) {
    HasherMediaOut stream(Hasher::SHA256);
    stream.write(bufferOf("a"));
    stream.write(bytesOf("bc"), 2);
    EXPECT_EQ(stream.hasher()->digest().length(), 0U);
    stream.end();
    EXPECT_EQ(stream.hasher()->digestAsHexString(), sha256OfAbc);
}

TEST_F(Hashing, AStreamTakesAWholeSource) {
    norvtest::PieceMediaIn source("abc", 1);
    HasherMediaOut stream(Hasher::SHA256);
    source.write(stream);
    stream.end();
    EXPECT_EQ(stream.hasher()->digestAsHexString(), sha256OfAbc);
}

TEST_F(Hashing, AStreamOfABadTypeThrowsAsTheHasherDoes) {
    const auto thrown = norvtest::thrownBy([] { const HasherMediaOut stream(static_cast<Hasher::Type>(19)); });
    norvtest::expectFailure(thrown, "Crypto::Hasher", 4, "Hasher");
}

TEST_F(Hashing, TheHasherOfAStreamWithoutABodyThrows) {
    HasherMediaOut stream(Hasher::SHA256);
    static_cast<Norvane::MediaOut&>(stream) = Norvane::MediaOut();
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(stream.hasher()); });
    norvtest::expectFailure(thrown, "const Norvane::Crypto::RefHasher& Norvane::Crypto::HasherMediaOut::hasher() const",
                            1, "Hasher");
    EXPECT_TRUE(thrown.parameters().empty());
}

} // namespace
