#pragma once

// How another program reads a mail: GMime's parser. It is compiled by itself, with GMime's flags.

#include <string>
#include <vector>

namespace smimetest {

/// A part without parts.
struct GmimePart {
    std::string type;    ///< "text/plain"
    std::string content; ///< without its transfer encoding
    std::string name;    ///< file name, UTF-8
    std::string description;
    bool operator==(const GmimePart& other) const = default;
};

/// What it found.
struct GmimeMail {
    std::vector<GmimePart> parts; ///< those of forwarded messages too, in order
    std::string subject;          ///< decoded
    std::string from;             ///< likewise
};

/// Line ends of texts are LF.
GmimeMail readByGmime(const std::string& mail);

/// What GMime's own S/MIME (by gpgsm, with the keyring that GNUPGHOME names) says to a signed mail: "valid" for each
/// signature that is good and trusted.
std::string verdictOfGmime(const std::string& mail);
/// The entity that it decrypts, or what it says.
std::string decryptedByGmime(const std::string& mail);

} // namespace smimetest
