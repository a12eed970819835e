#pragma once

/// \file
/// What became of a mail, for people and for programs.

#include "show/Description.h"

#include <norvcrypto-smime/SMimeAnswer.h>

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What docs/json.md calls a mail object. \param trust what signers were judged by, if trust was asked
Description mailFacts(const Norvane::Crypto::SMime::Answer& answer,
                      const std::optional<Norvane::Crypto::Trust::Options>& trust, const std::string& file);

/// Whether the mail could be read to its end, whatever became of its signatures.
[[nodiscard]] bool isRead(const Norvane::Crypto::SMime::Answer& answer) noexcept;

/// Tells it on standard output. \param unused what in the files for trust is not used
void tellMail(const Norvane::Crypto::SMime::Answer& answer, const std::optional<Norvane::Crypto::Trust::Options>& trust,
              const std::string& file, bool json, const std::vector<std::string>& unused = {});
/// Tells what matters to who reads the content, on standard error.
void tellMailOnError(const Norvane::Crypto::SMime::Answer& answer);

} // namespace norvcrypt
