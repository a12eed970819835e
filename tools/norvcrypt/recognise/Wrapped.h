#pragma once

/// \file
/// Structures as people hand them on: in base64 without PEM's lines, quoted in a mail, in hexadecimal digits, as the part
/// of a mail that they came in.

#include <norvcmsg/Buffer.h>

#include <string>
#include <vector>

namespace norvcrypt {

/// What was found in a text.
struct WrappedObject {
    std::string label;   ///< of PEM lines around it, in capital letters; empty without
    Norvane::Buffer der; ///< begins as DER and BER do
};

/// Everything that a text wraps in another way than proper PEM does. In this order: blocks of PEM whose lines are indented,
/// quoted or run together or whose labels are in small letters; the content of a mail or of a part of one, when that is a
/// CMS structure; base64, with or without padding, of the alphabet for URLs too; hexadecimal digits. All of it behind a byte
/// order mark, and in UTF-16.
std::vector<WrappedObject> wrappedIn(const Norvane::Buffer& content);

/// Whether a block of PEM begins elsewhere than at the start of a line, in small letters, or with more behind its label: what
/// reads proper PEM passes over it.
bool hasImproperPem(const Norvane::Buffer& content);

/// Whether a text begins with the header fields of a mail, or of a part of one.
bool looksLikeMail(const Norvane::Buffer& content);

} // namespace norvcrypt
