#pragma once

/// \file
/// The bodies that benchmarks work on, and how they are handed over.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace bench {

/// A body that does not compress into a pattern: a small linear generator, the same in every run.
inline const std::vector<unsigned char>& body(std::size_t size) {
    static std::vector<unsigned char> bytes;
    for (unsigned int state = 12345; bytes.size() < size;) {
        state = state * 1664525U + 1013904223U;
        bytes.push_back(static_cast<unsigned char>(state >> 24U));
    }
    return bytes;
}

/// How a mail layer hands over a body: in pieces of 16 KB.
inline constexpr std::size_t piece = 16384;

template <class Write> void inPieces(const std::vector<unsigned char>& bytes, std::size_t size, Write write) {
    for (std::size_t at = 0; at < size; at += piece) {
        write(bytes.data() + at, static_cast<unsigned int>(std::min(piece, size - at)));
    }
}

} // namespace bench
