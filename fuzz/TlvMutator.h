#pragma once

/// \file
/// Changes encodings by their elements, for libFuzzer: elements are taken away, doubled, swapped, replaced by others that the
/// readers know, written in segments and with indefinite lengths, and the lengths around them are those of what is there then.
/// What strings of octets and bits hold is changed alike when it is made of elements.

#include "differential/Mutations.h"
#include "differential/Tree.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>

namespace fuzz {

/// Changes octets without regard to what they are, as LLVMFuzzerMutate does: in place, and to `most` of them at most. Gives how
/// many there are then.
using OctetsMutator = std::size_t (*)(std::uint8_t* octets, std::size_t count, std::size_t most);

class TlvMutator {
public:
    enum class Lengths {
        repaired,       ///< what comes out is made of elements when what went in is
        sometimesWrong, ///< one in sixteen has a length that is wrong, another one is changed as octets
    };

    /// The same changes for the same number and inputs, if those of `octets` are.
    TlvMutator(OctetsMutator octets, std::uint64_t number, Lengths lengths = Lengths::sometimesWrong);

    /// Something like the input. What is not made of elements is changed as octets.
    /// \param most how long it may get; the input may be longer
    Bytes change(const Bytes& input, std::size_t most);
    /// The first with elements of the second.
    Bytes cross(const Bytes& into, const Bytes& from, std::size_t most);

private:
    std::size_t below(std::size_t count) { return count == 0 ? 0 : static_cast<std::size_t>(m_random() % count); }
    Bytes changeOctets(Bytes octets, std::size_t most);
    void changeContent(Node& node, std::size_t most);
    void changeOnce(Node& root, std::size_t most);
    void repeat(Node& parent, std::size_t most);
    void graft(Node& root, const Node& branch);
    std::optional<Bytes> written(Node& root, std::size_t most);
    void spoilALength(Bytes& octets, Node& root);

    OctetsMutator m_octets;
    Lengths m_lengths;
    std::mt19937_64 m_random;
    Mutator m_trees;
};

} // namespace fuzz
