#pragma once

/// \file
/// The log of the daemon: one line an event, for people and for programs.
///
/// \code
/// log.event(LogLevel::info, "message", {{"queue", "4F2C1"}, {"smime", "pass"}});
/// // level=info event=message queue=4F2C1 smime=pass
/// \endcode
///
/// The names of events and keys are stable; docs/gateway-operation.md has the table. A value stands in quotation marks when it has
/// anything but letters, digits and `._:/@+-`; within them a quotation mark is \" and a backslash \\, and what must not be
/// shown is \xNN (`escapeForDisplay`). Values are cut at 1,000 bytes, with "..." behind.

#include "config/Config.h"

#include <atomic>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace norvmilter {

using LogFields = std::vector<std::pair<std::string, std::string>>;

/// The name and what stands behind it, as in a line of the log.
[[nodiscard]] std::string logField(std::string_view name, std::string_view value);
/// The line without its end.
[[nodiscard]] std::string logLine(LogLevel level, std::string_view event, const LogFields& fields);

/// Where the lines go. Any number of threads may use one.
class Log {
public:
    explicit Log(LogTarget target = LogTarget::standardError, LogLevel level = LogLevel::info);
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    virtual ~Log() = default;

    /// After a reload.
    void use(LogTarget target, LogLevel level) noexcept;
    /// Never throws: a line that cannot be written is lost.
    void event(LogLevel level, std::string_view event, const LogFields& fields = {}) noexcept;

protected:
    /// A test keeps them.
    virtual void write(LogLevel level, const std::string& line);

private:
    std::atomic<LogTarget> m_target;
    std::atomic<LogLevel> m_level;
};

} // namespace norvmilter
