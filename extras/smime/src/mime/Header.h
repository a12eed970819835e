#pragma once

/// \file
/// The header block of an entity (RFC 5322, 2.2): its bytes exactly as they stand, and the fields in them.

#include "Limits.h"
#include "Octets.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Norvane::Crypto::SMime::mime {

/// How `readHeader` came to its end.
enum class HeaderEnd : int {
    complete, ///< behind the empty line, or behind the last line of an entity that has none
    tooLong,  ///< the limit was reached within it; what was read so far is there
    tooMany,  ///< likewise: fields
};

/// The fields of a header block.
class Header {
public:
    struct Field {
        std::size_t begin = 0; ///< in the block
        std::size_t colon = 0; ///< of the colon; `begin` for a line that is no field
        std::size_t end = 0;   ///< behind the last line, its line end included
    };

    /// The whole block, its empty line included.
    [[nodiscard]] std::string_view octets() const noexcept { return m_octets; }
    [[nodiscard]] const std::vector<Field>& fields() const noexcept { return m_fields; }
    /// A field as it stands, line ends and folding included.
    [[nodiscard]] std::string_view octetsOf(const Field& field) const;
    /// Its name without blanks behind it; empty for a line that is no field.
    [[nodiscard]] std::string_view nameOf(const Field& field) const;
    /// What stands behind the colon, as it stands.
    [[nodiscard]] std::string_view valueOf(const Field& field) const;
    /// The value with its lines put together (RFC 5322, 2.2.3) and without blanks around it.
    [[nodiscard]] std::string unfolded(const Field& field) const;

    /// How often a field stands there; names are compared without case.
    [[nodiscard]] std::size_t count(std::string_view name) const;
    /// The value of the first one, unfolded.
    [[nodiscard]] std::optional<std::string> first(std::string_view name) const;
    /// The values of all of them, unfolded.
    [[nodiscard]] std::vector<std::string> all(std::string_view name) const;
    /// Whether its lines end in CRLF; true for an empty one.
    [[nodiscard]] bool endsLinesInCrLf() const;

private:
    friend HeaderEnd readHeader(Octets& from, const HeaderLimits& limits, Header& header);

    WipedText m_octets;
    std::vector<Field> m_fields;
};

/// Takes a header block from the start of an entity. Lines end in CRLF or LF. A line without a colon in front of the first
/// field ("From ..." of a mailbox file) and any other that is no field is kept as one without a name.
[[nodiscard]] HeaderEnd readHeader(Octets& from, const HeaderLimits& limits, Header& header);

/// ASCII letters in lower case, all else as it is.
[[nodiscard]] char lowered(char letter) noexcept;
[[nodiscard]] std::string lowered(std::string_view text);
/// Equal without regard to the case of ASCII letters.
[[nodiscard]] bool isSameName(std::string_view left, std::string_view right) noexcept;

} // namespace Norvane::Crypto::SMime::mime
