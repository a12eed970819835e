#pragma once

/// \file
/// The header field Authentication-Results (RFC 8601), and the results of S/MIME in it (RFC 7281).

#include <optional>
#include <string>
#include <string_view>

namespace norvmilter {

/// What is told of a message.
struct SMimeResult {
    std::string result; ///< none, pass, fail, policy, neutral, temperror, permerror
    std::string reason; ///< any text; empty: none is told
    // What follows is of the signature that the result is about, any text; empty: not told.
    std::string part;       ///< body.smime-part: "2"
    std::string identifier; ///< body.smime-identifier: the address of the certificate
    std::string serial;     ///< body.smime-serial, in hexadecimal digits
    std::string issuer;     ///< body.smime-issuer (RFC 4514)
};

/// The value of the field, with the blank in front: printable ASCII, folded below 78 columns where it can be. Of texts, what is
/// not printable ASCII is written as \xNN, and what is longer than 300 bytes is cut with "...".
[[nodiscard]] std::string valueOf(const std::string& authservId, const SMimeResult& result);

/// The authserv-id of a value, unquoted; nothing when it is not as RFC 8601, 2.2 has it. Of what follows
/// the results are not looked at.
[[nodiscard]] std::optional<std::string> authservIdOf(std::string_view value);

/// Whether somebody could take a field for one that `authservId` wrote: its identifier is that one (RFC 8601, 5: capital and small
/// letters are the same, and so are U-labels and A-labels of a domain, with or without a last dot), or there is none that can be
/// read, and it has it in it or speaks of S/MIME.
[[nodiscard]] bool claims(std::string_view value, const std::string& authservId);

} // namespace norvmilter
