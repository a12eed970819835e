#pragma once

/// \file
/// Changes mails by their lines and parts, for libFuzzer: parts are swapped, doubled, put into others and cut out, boundaries
/// made to differ, header fields moved about, and structures in base64 changed by their elements.

#include "TlvMutator.h"

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace fuzz {

class MailMutator {
public:
    /// The same changes for the same number and inputs, if those of `octets` are.
    MailMutator(OctetsMutator octets, std::uint64_t number)
        : m_octets(octets),
          m_random(number),
          m_tlv(octets, number) {}

    /// Something like the mail, of `most` octets at most.
    std::string change(const std::string& mail, std::size_t most);
    /// The first mail with lines of the second.
    std::string cross(const std::string& into, const std::string& from, std::size_t most);

private:
    using Lines = std::vector<std::string>; ///< each with its end

    std::size_t below(std::size_t count) { return count == 0 ? 0 : static_cast<std::size_t>(m_random() % count); }
    void changeOctets(std::string& text, std::size_t most);
    void changeLines(Lines& lines);
    void changeParts(Lines& lines);
    void changeBase64(Lines& lines, std::size_t most);
    void changeLineEnds(Lines& lines);
    void wrap(Lines& lines);

    OctetsMutator m_octets;
    std::mt19937_64 m_random;
    TlvMutator m_tlv;
};

} // namespace fuzz
