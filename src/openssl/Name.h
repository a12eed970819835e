#pragma once

/// \file
/// Access to names and their entries. Null arguments are allowed where OpenSSL allows them.

#include "openssl/Pointers.h"

#include <string>
#include <vector>

namespace Norvane::Crypto::openssl {

/// The content octets of a string as they are, zero bytes included.
[[nodiscard]] std::string bytesOf(const ASN1_STRING* string);

/// One entry of a name as it stands: the text of its type and the bytes of its value.
struct NameEntry {
    std::string type; ///< short name; else long name or dotted number, cut to 79 characters
    int stringType;   ///< the ASN.1 type of the value
    std::string value;
};

/// The entries, in their order. The installed interface hides the stack of a name.
[[nodiscard]] std::vector<NameEntry> entriesOf(const X509_NAME* name);
[[nodiscard]] std::vector<NameEntry> entriesOf(const STACK_OF(X509_NAME_ENTRY) * entries);

/// One attribute of a name as people are to read it.
struct NameAttribute {
    std::string type;    ///< short name or the whole dotted number; "?" for one that is too long to be printed
    std::string text;    ///< the value in UTF-8; bytes that are none where the certificate has them
    std::string der;     ///< the encoded value instead, when it is no readable text
    bool joinsPreceding; ///< belongs to one RDN with the attribute before
};

/// The attributes, in their order.
[[nodiscard]] std::vector<NameAttribute> attributesOf(const X509_NAME* name);

/// A copy of a name that `appendEntry` made: each entry an RDN of its own. Null without memory. OpenSSL's own copying
/// goes through an encoding, of which it decodes no more than a mebibyte.
[[nodiscard]] NamePtr copyOf(const X509_NAME* name);

/// Appends an RDN of one attribute. Whether OpenSSL accepted type and value is not told. Bytes from 0x80 are Latin-1
/// and stay as they are, as in the old interface, which made a T61String of them; the installed one would make UTF-8.
void appendEntry(X509_NAME* name, const std::string& type, const std::string& value);

} // namespace Norvane::Crypto::openssl
