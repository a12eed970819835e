#pragma once

/// \file
/// What a file holds, DER or PEM: its objects, told apart by their content and not by the file's name.

#include <norvcmsg/Buffer.h>

#include <string>
#include <vector>

namespace norvcrypt {

enum class ObjectKind : int {
    certificate,
    list,
    cms,
    publicKey,
    privateKey,
    encryptedKey,
    pkcs12,
    crossPair,
    request,
    unknown
};

/// One object of a file.
struct FoundObject {
    ObjectKind kind = ObjectKind::unknown;
    Norvane::Buffer der;
    std::string problem; ///< why it cannot be read, when it cannot
};

/// How the problem of a PEM block begins of which nothing can be read.
inline constexpr const char* damagedBlock = "a damaged PEM block: ";

/// The objects in a PEM text (text around the blocks is skipped) or in DER, one after another, or else what a text wraps
/// (see Wrapped.h). DER whose kind cannot be
/// told (a stretch of it is one object), and blocks that are damaged or of an unknown label, are objects with a problem.
/// There is always at least one.
std::vector<FoundObject> objectsIn(const Norvane::Buffer& content);

/// The most bytes that beginsStructure looks at.
constexpr unsigned int longestStart = 16;

/// True for the first bytes of a binary CMS structure: it leads with its content type, which no text does, not even
/// one that begins with the digit 0.
bool beginsStructure(const Norvane::Buffer& start);

/// True for bytes that begin a DER or BER structure rather than a text.
bool looksLikeDer(const Norvane::Buffer& content);

} // namespace norvcrypt
