#pragma once

/// \file
/// What header fields say, read by GMime: parameters in all forms of RFC 2231, addresses with groups, encoded words.

#include "Header.h"

#include <string>
#include <string_view>
#include <vector>

namespace Norvane::Crypto::SMime::mime {

/// A Content-Type (RFC 2045, 5). Parameters that are missing are empty; texts are UTF-8.
struct ContentType {
    std::string type = "text"; ///< in lower case
    std::string subtype = "plain";
    std::string boundary;         ///< as it stands, never decoded as an encoded word
    bool isBoundaryPlain = false; ///< written so that all readers find the same one
    std::string protocol;         ///< in lower case
    std::string micalg;           ///< in lower case
    std::string smimeType;        ///< in lower case
    std::string characterSet;     ///< in lower case
    std::string name;
    std::string hp;               ///< header protection (RFC 9788, 2.1.1), in lower case
    std::string hpLegacyDisplay;  ///< "1": begins with fields for programs that do not know it (RFC 9788, 2.1.2)
    std::string protectedHeaders; ///< "v1": what came before it
    std::string forwarded;        ///< "no": a message that wraps for header protection
    /// Something that others may read in another way: a field that stands twice, a parameter that does, a NUL byte, a value
    /// that is too long. Words for a person; empty when there is nothing.
    std::string oddity;

    [[nodiscard]] bool is(std::string_view mainType, std::string_view subType) const noexcept {
        return type == mainType && subtype == subType;
    }
    [[nodiscard]] std::string text() const { return type + '/' + subtype; }
};

/// The Content-Type of an entity; "text/plain" when there is none, "application/octet-stream" when it cannot be read.
[[nodiscard]] ContentType contentTypeOf(const Header& header);
/// The file name of an entity: of its Content-Disposition, else the name of its Content-Type. UTF-8, may be empty.
[[nodiscard]] std::string fileNameOf(const Header& header, const ContentType& type);

/// How the body of an entity is encoded (RFC 2045, 6).
enum class Transfer : int {
    identity, ///< 7bit, 8bit, binary, none
    base64,
    quotedPrintable,
    unknown, ///< another word: the bytes are taken as they stand
};
[[nodiscard]] Transfer transferOf(const Header& header);
/// The word that stands there, in lower case; empty when none does.
[[nodiscard]] std::string transferWordOf(const Header& header);

/// The addresses in fields of a header.
struct Addresses {
    std::vector<std::string> mailboxes; ///< addr-specs in UTF-8, groups taken apart, in their order
    bool isReadable = true; ///< false: not all of it is addresses, or there are more than `maximumAddresses`
};
/// Those of all fields of this name: "From" may stand there twice.
[[nodiscard]] Addresses addressesOf(const Header& header, std::string_view name);

/// A text with its encoded words decoded (RFC 2047), in UTF-8; damaged bytes become the replacement character.
[[nodiscard]] std::string decodedText(const std::string& value);

} // namespace Norvane::Crypto::SMime::mime
