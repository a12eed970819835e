#pragma once

#include <authority/Authority.h>

#include <string>

namespace norvauthority {

/// Throws with the oldest entry of OpenSSL's error queue, which it empties.
[[noreturn]] void fail(const std::string& what);
/// What OpenSSL answered, or a throw for null.
template <class T> T* require(T* answer, const char* what) {
    if (answer == nullptr)
        fail(what);
    return answer;
}
Bytes digest(const std::string& name, const Bytes& content);
/// The outer structure of certificates and lists: what is signed, the algorithm, the signature.
Bytes signedStructure(const Bytes& toBeSigned, const Key& key, const std::string& digestName);
/// The AlgorithmIdentifier of a signature.
Bytes signatureAlgorithm(const Key& key, const std::string& digestName);
Bytes extension(const Extension& request);
Bytes keyIdentifierExtension(const Bytes& identifier, const Identity* issuer);

} // namespace norvauthority
