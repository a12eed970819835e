#pragma once

#include "commandline/CommandLine.h"

#include <norvcrypto-trust/TrustVerdict.h>

#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What the command line asks about trust.
struct TrustRequest {
    std::vector<std::string> anchors; ///< files and directories
    std::vector<std::string> untrusted;
    std::vector<std::string> lists;
    Norvane::Crypto::Trust::Options options;
    std::vector<std::string> from; ///< the addresses that the certificate has to be for
};

/// The options about trust, the same for every command that judges certificates. Lives until the action has run.
class TrustOptions {
public:
    enum class Anchors { optional, required };

    /// \param purpose what is judged for unless --purpose says otherwise
    TrustOptions(Command& command, Norvane::Crypto::Trust::Purpose purpose, Anchors anchors);
    TrustOptions(const TrustOptions&) = delete;
    TrustOptions& operator=(const TrustOptions&) = delete;

    /// Whether there is anything to judge by: --ca was given.
    [[nodiscard]] bool asked() const { return !m_anchors->empty(); }
    [[nodiscard]] bool json() const noexcept { return m_json; }
    /// \throws Failure: a moment that is none, an address that is none
    [[nodiscard]] TrustRequest request() const;

private:
    Option* m_anchors;
    Option* m_untrusted;
    Option* m_lists;
    Option* m_policies;
    Option* m_from;
    std::optional<std::string> m_revocation;
    std::optional<std::string> m_moment;
    std::string m_purpose;
    bool m_json = false;
};

/// "2026-06-01" (its first second) or "2026-06-01T12:00:00Z", UTC; nothing for any other text and for days that are none.
std::optional<std::time_t> momentOf(const std::string& text);

} // namespace norvcrypt
