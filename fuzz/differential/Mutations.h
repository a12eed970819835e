#pragma once

/// \file
/// Changed structures: octets flipped, elements moved about with the lengths around them repaired.

#include "Tree.h"

#include <cstdint>
#include <random>
#include <vector>

namespace fuzz {

/// The same changes for the same number and seeds, on every machine.
class Mutator {
public:
    Mutator(const std::vector<Bytes>& seeds, std::uint64_t number) : m_seeds(seeds), m_random(number) {}
    /// One of the seeds, changed once to three times.
    Bytes next();
    /// Changes one element of a tree. Where lengths are indefinite, it may no longer be read as what it is.
    void changeTree(Node& root);

private:
    std::size_t below(std::size_t count) { return count == 0 ? 0 : static_cast<std::size_t>(m_random() % count); }
    void changeOctets(Bytes& octets);
    void changeElement(Node& node);
    void changeList(Node& parent);
    void inSegments(Node& node);
    Node fromASeed();

    const std::vector<Bytes>& m_seeds;
    std::mt19937_64 m_random;
};

} // namespace fuzz
