#pragma once

/// \file
/// Streams that the engine puts around those of a message.

#include "message/Message.h"
#include "message/Temporary.h"

#include <norvcmsg/Media.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace norvmilter {

/// Reads what another one has, and throws `Temporary` once the time is over. It knows its position and goes back when the other
/// can.
[[nodiscard]] Norvane::MediaIn timed(const Norvane::MediaIn& in, const Deadline& deadline);

/// A mail while it is written: its header is kept as fields, its body where bodies are kept.
class WrittenMail : public Norvane::MediaOut {
public:
    /// \param most octets that it may have; more throw `TooMuch`
    WrittenMail(const std::string& spool, const Deadline& deadline, std::uint64_t most);
    ~WrittenMail() override;

    /// The fields; values as `HeaderEdit::value` has them.
    [[nodiscard]] std::vector<HeaderField> header() const;
    [[nodiscard]] const Norvane::SwapBufferMediaOut& body() const;
    [[nodiscard]] std::uint64_t length() const;
};

/// What was written has more octets than it may.
class TooMuch : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace norvmilter
