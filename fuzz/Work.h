#pragma once

/// \file
/// What an input costs, in operations and not in time: OpenSSL's expensive functions, its decoder's elements, the
/// comparisons of our own code and the allocations of both are counted while a `Counting` lives. OpenSSL's functions are
/// defined anew in Work.cpp and forwarded, which reaches the calls inside its library too. What is counted is that of all
/// threads.

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

struct Work {
    std::uint64_t products = 0; ///< of 64-bit words: powers, products and quotients of long numbers, points of curves
    std::uint64_t hashed = 0;   ///< octets; each call is 64 more, since the last block is filled up
    std::uint64_t ciphered = 0; ///< octets of content that were decrypted or encrypted
    std::uint64_t elements = 0; ///< headers that OpenSSL's decoder read, and names that it compared
    std::uint64_t comparisons = 0; ///< of numbers, in our own code: loops have one in each round
    std::uint64_t allocations = 0;
    std::uint64_t allocated = 0; ///< octets in all, freed ones included
    std::uint64_t held = 0;      ///< octets at once, at the most

    /// One number for all of it, roughly nanoseconds of an optimised build. What the parts weigh is in no need of being
    /// exact: what grows out of proportion shows in any unit.
    [[nodiscard]] std::uint64_t total() const noexcept {
        return products + 4 * hashed + ciphered + 30 * elements + comparisons + 40 * allocations + allocated / 16;
    }
    [[nodiscard]] std::string asString() const;
};

/// Counts from its beginning until `stop`. There is one at a time.
class Counting {
public:
    Counting() noexcept;
    ~Counting() { stop(); }
    Counting(const Counting&) = delete;
    Counting& operator=(const Counting&) = delete;

    const Work& stop() noexcept;
};

/// Has what is done while it lives not counted: checks of a target's own.
class Uncounted {
public:
    Uncounted() noexcept;
    ~Uncounted();
    Uncounted(const Uncounted&) = delete;
    Uncounted& operator=(const Uncounted&) = delete;

private:
    bool m_before;
};

/// What one private key of DSA or DH may cost (10,000 bits to the power of as many), and a few uses of it.
constexpr std::uint64_t longNumbers = 2'000'000'000;
/// What all the hashing of a password may cost (`mostHashes`, each of two blocks, with what OpenSSL allocates for it).
constexpr std::uint64_t passwords = 60'000'000'000;

/// The most that an input may cost: a constant, and something for each of its octets.
struct Budget {
    std::uint64_t constant = 4'000'000; ///< what OpenSSL fetches on first use is most of it
    std::uint64_t perOctet = 20'000;    ///< a public key of 100 octets on a curve, as a compressed point, is the most

    /// Of our own comparisons, beside half a million: a name takes 700 for each octet.
    std::uint64_t comparisonsPerOctet = 2'000;

    /// Aborts with the parts of the work when it is more.
    void check(const Work& work, std::size_t size) const;
};

} // namespace fuzz
