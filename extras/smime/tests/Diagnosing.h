#pragma once

/// \file
/// Signatures that OpenSSL makes over one text, and what is found out about another.

#include "support/SignedMessages.h"

#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <string>
#include <vector>

namespace diagnosing {

using namespace cmstest;
namespace SMime = Norvane::Crypto::SMime;
using Names = std::vector<std::string>;

/// A detached signature by OpenSSL over these bytes.
inline Bytes signatureOver(const std::string& body, const Identity& identity = identities().rsa,
                           const char* digest = "sha256", unsigned int flags = 0) {
    return signedMessage({&identity}, {digest}, bytesOf(body), CMS_DETACHED | flags);
}

inline SMime::BodySource sourceOf(const std::string& body) {
    return [body] { return Norvane::MediaIn(Norvane::MemoryMediaIn(body)); };
}

inline SMime::Diagnosis diagnosisOf(const Bytes& signature, const std::string& arrived,
                                    const SMime::DiagnosisOptions& options = {}) {
    return SMime::explain(bufferOf(signature), sourceOf(arrived), options);
}

/// The names of what is found of the only explanation; "nothing" when there is none.
inline Names namesOf(const SMime::Diagnosis& diagnosis) {
    if (diagnosis.explanations.size() != 1) {
        return {std::to_string(diagnosis.explanations.size()) + " explanations"};
    }
    Names names;
    for (const SMime::Finding& finding : diagnosis.explanations.front().findings) {
        EXPECT_FALSE(finding.text.empty());
        EXPECT_FALSE(finding.advice.empty());
        names.emplace_back(SMime::nameOf(finding.change));
    }
    return names;
}

/// What is found about `arrived` when `sent` was signed.
inline Names changesBetween(const std::string& sent, const std::string& arrived) {
    return namesOf(diagnosisOf(signatureOver(sent), arrived));
}

inline std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

} // namespace diagnosing
