#pragma once

/// \file
/// The changes that are undone, and what is said about them.

#include "diagnosis/BodyFacts.h"
#include "diagnosis/TryOutput.h"
#include "diagnosis/Undoing.h"

#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <functional>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

/// One change that may have been made, and how it is undone.
struct Recipe {
    Change change;
    std::string text;
    std::function<UndoingPtr(LineOutput&)> undo;
};

/// Those that a body may show, the most usual first.
std::vector<Recipe> recipesFor(const BodyFacts& facts);

/// What is said when line ends had to be made others for the signature to fit; nothing when they already were.
std::vector<Finding> findingsOf(EndMode mode, const BodyFacts& facts);
/// What is said of the end of a body.
std::vector<Finding> findingsOf(const EndChange& change);
Finding findingOf(const Recipe& recipe);

} // namespace Norvane::Crypto::SMime::diagnosis
