#pragma once

/// \file
/// Hands messages to the MTA over SMTP, beside the one that it asked about.
///
/// \code
/// submit({"smtp://127.0.0.1:10026", "mx.a.example"}, outcome.submissions);
/// \endcode
///
/// Any number of threads may submit at once, each over a connection of its own.

#include "message/Outcome.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace norvmilter {

struct SubmitTo {
    std::string url;                  ///< smtp://HOST:PORT or smtps://HOST:PORT
    std::string name;                 ///< what the server is told to talk with; empty: the host's name
    std::chrono::seconds silence{60}; ///< how long the server may say nothing
    std::chrono::seconds total{240};  ///< how long all may take
};

/// A message was not taken.
class SubmissionFailure : public std::runtime_error {
public:
    SubmissionFailure(const std::string& text, bool isPermanent)
        : std::runtime_error(text),
          m_isPermanent(isPermanent) {}
    /// The server said 5xx, and no message was handed over before: trying again is no use, and refusing the whole tells its
    /// sender the truth.
    [[nodiscard]] bool isPermanent() const noexcept { return m_isPermanent; }

private:
    bool m_isPermanent;
};

/// Hands all over, one after the other. Before the first of several is, the server is asked whether it takes the senders and
/// recipients of all: most refusals come before anything was sent. A recipient that is refused is a failure of all.
///
/// A message that the server took stays there whatever happens to those behind it: when the whole is sent again, its recipients
/// get it twice.
/// \throws SubmissionFailure
void submit(const SubmitTo& to, const std::vector<Submission>& submissions);

} // namespace norvmilter
