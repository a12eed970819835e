#pragma once

/// \file
/// Why a signature does not fit, for people and for programs.

#include "files/Output.h"
#include "show/Description.h"

#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <cstddef>
#include <string>

namespace norvcrypt {

/// What makes the signature of a signer fit, by its place; null when nothing was found.
const Norvane::Crypto::SMime::Explanation* explanationOf(const Norvane::Crypto::SMime::Diagnosis& diagnosis,
                                                         std::size_t signer);

/// Tells each finding and what to do about it, behind the verdict on a signer.
/// \param who "signer 1"
/// \param indent in front of each line
void tellExplanation(TextOutput& out, const std::string& who, const std::string& indent,
                     const Norvane::Crypto::SMime::Explanation& explanation);
/// What docs/json.md calls an explanation object.
Description explanationFacts(const Norvane::Crypto::SMime::Explanation& explanation);

} // namespace norvcrypt
