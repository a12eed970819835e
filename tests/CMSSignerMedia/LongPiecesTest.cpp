// Pieces of all lengths and repeated ends, beside what they mean: bytes collect in a buffer of 4096 bytes, which goes to the
// digest when a piece does not fit any more and at each end, and which an end does not empty. A longer piece is buffered
// whole; the buffer grows then, at least to the double, and never shrinks.
#include "support/Cms.h"

#include <openssl/evp.h>

#include <random>

using namespace cmstest;
using Crypto::Hasher;

namespace {

/// What a signing stream has digested after the same calls.
class Meaning {
public:
    void write(const Bytes& piece) {
        if (m_size - m_buffered.size() < piece.size()) {
            pass();
            m_buffered.clear();
        }
        m_buffered.insert(m_buffered.end(), piece.begin(), piece.end());
        if (m_buffered.size() > m_size) {
            m_size = std::max(m_buffered.size(), 2 * m_size);
        }
    }
    const Bytes& end() {
        pass();
        return m_digested;
    }

private:
    void pass() { m_digested.insert(m_digested.end(), m_buffered.begin(), m_buffered.end()); }

    Bytes m_digested;
    Bytes m_buffered;
    std::size_t m_size = 4096;
};

/// A stream and its meaning; each end is held against the structure that OpenSSL makes of the meaning.
class Pair {
public:
    Pair() { m_signer.attach(m_target); }

    void write(std::size_t length) {
        // No two pieces alike, so that an order or a piece that is mistaken shows.
        Bytes piece(length);
        std::generate(piece.begin(), piece.end(), [this] { return static_cast<unsigned char>(m_random()); });
        m_signer.write(piece.data(), static_cast<unsigned int>(length));
        m_meaning.write(piece);
        std::fill(piece.begin(), piece.end(), static_cast<unsigned char>(0)); // the caller's again, once written
    }
    void end() {
        const auto before = m_target.content().length();
        m_signer.end();
        const Bytes all = bytesOf(m_target.content());
        EXPECT_TRUE(Bytes(all.begin() + before, all.end()) ==
                    signedPlainly(identities().rsa, m_meaning.end(), EVP_sha256()));
    }

private:
    CMS::SignerMediaOut m_signer{Hasher::SHA256, pairOf(identities().rsa)};
    Norvane::MemoryMediaOut m_target;
    Meaning m_meaning;
    std::mt19937 m_random{20};
};

/// Writes pieces of those lengths, 0 ends the stream.
void expectMeaning(std::initializer_list<std::size_t> steps) {
    Pair pair;
    for (const std::size_t step : steps) {
        step == 0 ? pair.end() : pair.write(step);
    }
}

} // namespace

// Deliberate, as for short pieces: the buffer still holds the last piece.
TEST(SignerLongPieces, ASecondEndDigestsTheLongPieceAgain) {
    expectMeaning({5000, 16384, 0, 0, 0});
    expectMeaning({100000, 0, 0});
}

TEST(SignerLongPieces, PiecesAfterALongOneGoWhereItMadeRoom) {
    expectMeaning({20000, 100, 0, 0});
    expectMeaning({20000, 100, 19900, 0, 0});
    expectMeaning({20000, 100, 19901, 0, 0});
    expectMeaning({9000, 10000, 8000, 0, 0});
    expectMeaning({9000, 10000, 8001, 0, 0});
}

TEST(SignerLongPieces, LengthsAroundTheBuffer) {
    for (const std::size_t length : {4095U, 4096U, 4097U, 8191U, 8192U, 8193U, 12288U, 16384U, 16385U}) {
        expectMeaning({length, 0, 0});
        expectMeaning({1, length, 0, 0});
        expectMeaning({4096, length, 0, 0});
        expectMeaning({length, 1, 0, 0});
        expectMeaning({length, length, 0, 0});
    }
}

TEST(SignerLongPieces, WhatIsWrittenAfterAnEndFollowsTheBufferOnceMore) {
    expectMeaning({20000, 0, 100, 0, 0});
    expectMeaning({20000, 0, 30000, 0, 0});
    expectMeaning({12000, 13000, 0, 9000, 0, 0});
    expectMeaning({100, 0, 3996, 0, 9000, 0, 0});
}

TEST(SignerLongPieces, AnyOrderOfPiecesAndEnds) {
    std::mt19937 random(7);
    constexpr std::size_t lengths[]{1, 100, 4000, 4095, 4096, 4097, 8192, 8193, 9000, 12000, 20000, 50000};
    for (int turn = 0; turn != 20; ++turn) {
        Pair pair;
        for (int step = 0; step != 15; ++step) {
            random() % 4 == 0 ? pair.end() : pair.write(lengths[random() % std::size(lengths)]);
        }
        pair.end();
    }
}

// A piece that is marked as secret makes the buffer that keeps it be wiped, however long it is: see Buffer::protect().
TEST(SignerLongPieces, BuffersCountAsTheirBytes) {
    const Bytes body = bodyOf(30000);
    for (const bool secret : {false, true}) {
        Buffer piece(body.data(), 30000, true);
        if (secret) {
            piece.protect();
        }
        Norvane::MemoryMediaOut target;
        CMS::SignerMediaOut signer(Hasher::SHA256, pairOf(identities().rsa));
        signer.attach(target);
        signer.write(piece);
        signer.end();
        EXPECT_EQ(bytesOf(target.content()), signedPlainly(identities().rsa, body, EVP_sha256()));
    }
}
