#pragma once

/// \file
/// Looking for what an operator would want to mend in a store.

#include "identities/Store.h"
#include "openssl/CertificateDetails.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

constexpr int leastFactoringBits = 2048; ///< RSA, DSA and DH; shorter keys are weak
constexpr int leastCurveBits = 224;      ///< EC

/// How many bits a key of that kind should have, when it has fewer.
std::optional<int> leastSafeBits(const PublicKeyDetails& key);

/// Something to mend.
struct Finding {
    const char* kind; ///< a word for programs
    std::string folder{};
    std::string file{};                 ///< in the folder; empty for all of it
    std::optional<unsigned int> line{}; ///< in owners.txt
    std::optional<std::string> pattern{};
    std::string reason;
};

/// All findings: what could not be read, then what is wrong with each identity, folder by folder.
std::vector<Finding> findingsIn(const Store::Contents& contents, std::time_t now);

} // namespace norvcrypt
