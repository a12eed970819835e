// What a body costs beside its digests: no memory and no copy, however long it is, and one digest for all signers that
// name the same one.
#include "../SignedWriting.h"

#include "support/Allocations.h"
#include "support/Interpose.h"

#include <atomic>
#include <cstdlib>

using namespace signedtest;

namespace {

std::atomic<std::size_t> s_allocations{0};
std::atomic<std::size_t> s_allocated{0}; ///< octets, those that were freed again too

void count(std::size_t length) {
    ++s_allocations;
    s_allocated += length;
}
void* countedMalloc(std::size_t length, const char* /*file*/, int /*line*/) {
    count(length);
    return std::malloc(length);
}
void* countedRealloc(void* memory, std::size_t length, const char* /*file*/, int /*line*/) {
    count(length);
    return std::realloc(memory, length);
}
void countedFree(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

// Possible only before OpenSSL's first allocation.
const bool s_counting = [] {
    norvtest::s_beforeAllocation = count;
    return CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;
}();

/// What was digested, while somebody looks.
std::vector<std::pair<const void*, std::size_t>>* s_digested = nullptr;

} // namespace

extern "C" int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t length) {
    if (s_digested != nullptr) {
        s_digested->emplace_back(data, length);
    }
    return norvtest::next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, data, length);
}

namespace {

/// A target that keeps nothing but where large pieces lay.
class ForgettingOutImpl : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (length >= 4096 && places != nullptr) {
            places->push_back(data);
        }
    }
    std::vector<const void*>* places = nullptr;
};
class ForgettingOut : public Norvane::MediaOut {
public:
    ForgettingOut() : MediaOut(Norvane::makeReference<ForgettingOutImpl, Norvane::MediaOutImpl>()) {}
    ForgettingOutImpl& body() { return dynamic_cast<ForgettingOutImpl&>(*operator->()); }
};

struct Cost {
    std::size_t allocations;
    std::size_t octets;
};
/// What the writes of a body of that many pieces take.
Cost costOf(const Options& options, std::size_t pieces, std::size_t pieceLength) {
    static const Bytes piece = bodyOf(std::size_t{1} << 20U);
    ForgettingOut target;
    SignedWriter writer(options);
    writer.attach(target);
    const Cost before{s_allocations, s_allocated};
    for (std::size_t turn = 0; turn < pieces; ++turn) {
        writer.write(piece.data(), static_cast<unsigned int>(pieceLength));
    }
    const Cost cost{s_allocations - before.allocations, s_allocated - before.octets};
    writer.end();
    return cost;
}

std::vector<Options> streaming(std::uint64_t length) {
    std::vector<Options> all(3, optionsFor({Signer(pairOf(identities().rsa)), Signer(pairOf(ed25519()))}));
    all[1].encoding = Encoding::der;
    all[1].length = length;
    all[2].content = Content::detached;
    return all;
}

} // namespace

TEST(SignedMemory, SixtyFourMegabytesTakeWhatOneTakes) {
    ASSERT_TRUE(s_counting);
    for (const std::size_t piece : {std::size_t{1} << 20U, std::size_t{65536}, std::size_t{1000}, std::size_t{4096}}) {
        const std::size_t small = (std::size_t{1} << 20U) / piece;
        const std::size_t large = 64 * small;
        const std::vector<Options> ofSmall = streaming(small * piece);
        const std::vector<Options> ofLarge = streaming(large * piece);
        for (std::size_t form = 0; form < ofSmall.size(); ++form) {
            static_cast<void>(costOf(ofSmall[form], small, piece)); // what is made once and kept
            const Cost expected = costOf(ofSmall[form], small, piece);
            const Cost cost = costOf(ofLarge[form], large, piece);
            EXPECT_EQ(cost.allocations, expected.allocations) << form << ' ' << piece;
            EXPECT_LT(cost.octets, 65536U);
        }
    }
}

TEST(SignedMemory, ASpilledBodyTakesTheMemoryThatItMayTake) {
    Options options = optionsFor(identities().ec);
    options.encoding = Encoding::der;
    static_cast<void>(costOf(options, 16, 65536));
    const Cost small = costOf(options, 16, 65536);
    const Cost large = costOf(options, 64 * 16, 65536);
    EXPECT_EQ(large.allocations, small.allocations);
    EXPECT_LT(large.octets, 4 * 65536U);
}

TEST(SignedMemory, PiecesAreDigestedAndWrittenWhereTheyLie) {
    const Bytes body = bodyOf(3 * 65536);
    for (const Options& options : streaming(body.size())) {
        ForgettingOut target;
        SignedWriter writer(options);
        writer.attach(target);
        writer.write(body.data(), 1); // something is gathered
        std::vector<std::pair<const void*, std::size_t>> digested;
        std::vector<const void*> places;
        digested.reserve(10);
        target.body().places = &places;
        s_digested = &digested;
        const auto length = static_cast<unsigned int>(body.size() - 1);
        writer.write(body.data() + 1, length);
        s_digested = nullptr;
        const std::pair<const void*, std::size_t> whole(body.data() + 1, length);
        EXPECT_EQ(digested, (std::vector{whole, whole})); // SHA-256 and SHA-512
        for (const void* place : places) {
            EXPECT_TRUE(place >= body.data() && place < body.data() + body.size());
        }
        EXPECT_EQ(places.empty(), options.content == Content::detached);
        writer.end();
    }
}

TEST(SignedMemory, SignersThatNameOneDigestShareIt) {
    Options options = optionsFor(std::vector<Signer>(10, Signer(pairOf(identities().rsa))));
    options.signers.emplace_back(pairOf(identities().ec));
    options.signers.emplace_back(pairOf(p384()));
    options.signers.emplace_back(pairOf(ed25519()));
    ForgettingOut target;
    SignedWriter writer(options);
    writer.attach(target);
    const Bytes body = bodyOf(5000);
    std::vector<std::pair<const void*, std::size_t>> digested;
    s_digested = &digested;
    writer.write(body.data(), 5000);
    s_digested = nullptr;
    EXPECT_EQ(digested.size(), 3U); // SHA-256, SHA-384, SHA-512
    writer.end();
}
