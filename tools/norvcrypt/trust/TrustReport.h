#pragma once

/// \file
/// A verdict on trust for people and for programs.

#include "files/Colours.h"
#include "files/Output.h"
#include "show/Description.h"
#include "trust/TrustJudge.h"

#include <string>

namespace norvcrypt {

/// "accepted" or "REFUSED", and what it was judged by: "REFUSED, judged by 2026-06-01T12:00:00Z for signing, ...". To be
/// shown as it is.
std::string trustSummary(const TrustAnswer& answer, const Colours& colours);
/// Each reason and note with what to do about it, behind the summary.
void tellReasons(TextOutput& out, const TrustAnswer& answer, const Colours& colours);
/// The chain from its anchor down, each certificate with the reasons that are about it.
void tellChain(TextOutput& out, const TrustAnswer& answer, const Colours& colours);

/// Tells on standard error what stands in the files and is not used.
void tellUnused(const TrustJudge& judge);

/// What docs/json.md calls a trust object.
Description trustFacts(const TrustAnswer& answer);

} // namespace norvcrypt
