#pragma once

/// \file
/// Certificate requests (PKCS#10, RFC 2986).

#include <norvcrypto/Key.h>

#include <string>
#include <vector>

namespace norvcrypt {

/// What a request shall say.
struct RequestContent {
    std::string subject;             ///< as RFC 4514 has it: "CN=Dora,O=Example,C=DE", UTF-8
    std::vector<std::string> emails; ///< subject alternative names
    std::vector<std::string> hosts;  ///< likewise
};

/// A request in PEM, signed with the key. \throws Failure: the subject or an address cannot be encoded, or the key cannot sign
std::string makeRequest(const RequestContent& content, const Norvane::Crypto::RefKey& key);

} // namespace norvcrypt
