#pragma once

/// \file
/// What the library makes of foreign files and numbers, as facts in JSON. Nothing here knows what is right: that is compared
/// elsewhere, with what other programs say of the same file or with what its maker wrote down.

#include <norvcmsg/Buffer.h>

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace vectors {

using Json = nlohmann::json;
using Bytes = std::vector<unsigned char>;

/// A task that makes no sense: a mistake of whoever wrote it, not of the library.
class BadTask : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Bytes contentOf(const std::string& path);
Bytes octetsOf(const Json& task, const char* member); ///< from hexadecimal digits; empty when there are none
std::string hexOf(const Bytes& octets);
std::string sha256Of(const Bytes& octets); ///< in hexadecimal digits
/// Lives no longer than the octets.
inline Norvane::Buffer bufferOf(const Bytes& octets) {
    return {octets.data(), static_cast<unsigned int>(octets.size()), true};
}
inline Bytes bytesOf(const Norvane::Buffer& buffer) {
    return {buffer.data(), buffer.data() + buffer.length()};
}

// Files
Json certificates(const Json& task);
Json revocationList(const Json& task);
Json privateKey(const Json& task);
Json publicKey(const Json& task);
Json pkcs12(const Json& task);

// Messages
Json signedData(const Json& task);
Json envelopedData(const Json& task);
Json mail(const Json& task);

// Numbers
Json digest(const Json& task);
Json signature(const Json& task); ///< by the verifier
Json signing(const Json& task);
Json messageSignature(const Json& task); ///< in a signed message that is made for it
Json blockCipher(const Json& task);
Json authenticatedCipher(const Json& task); ///< in an encrypted message that is made for it
Json keyTransport(const Json& task);        ///< likewise

} // namespace vectors
