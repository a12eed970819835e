#include "daemon/Log.h"

#include <norvcmsg/Escape.h>

#include <algorithm>
#include <exception>
#include <syslog.h>
#include <unistd.h>

namespace norvmilter {

namespace {

constexpr std::size_t longestValue = 1000;

const char* nameOf(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::error:
        return "error";
    case LogLevel::warning:
        return "warning";
    case LogLevel::info:
        return "info";
    case LogLevel::debug:
        return "debug";
    }
    return "error";
}

int priorityOf(LogLevel level) noexcept {
    switch (level) {
    case LogLevel::error:
        return LOG_ERR;
    case LogLevel::warning:
        return LOG_WARNING;
    case LogLevel::info:
        return LOG_INFO;
    case LogLevel::debug:
        return LOG_DEBUG;
    }
    return LOG_ERR;
}

bool isPlain(char one) noexcept {
    return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z') || (one >= '0' && one <= '9') ||
           std::string_view("._:/@+-").find(one) != std::string_view::npos;
}

} // namespace

std::string logField(std::string_view name, std::string_view value) {
    std::string field(name);
    field += '=';
    if (!value.empty() && value.size() <= longestValue && std::ranges::all_of(value, isPlain))
        return field.append(value);
    field += '"';
    for (const char one : Norvane::escapeForDisplay(value.substr(0, longestValue))) {
        if (one == '"')
            field += '\\';
        field += one;
    }
    if (value.size() > longestValue)
        field += "...";
    return field + '"';
}

std::string logLine(LogLevel level, std::string_view event, const LogFields& fields) {
    std::string line = logField("level", nameOf(level)) + ' ' + logField("event", event);
    for (const auto& [name, value] : fields)
        line += ' ' + logField(name, value);
    return line;
}

Log::Log(LogTarget target, LogLevel level) : m_target(target), m_level(level) {}

void Log::use(LogTarget target, LogLevel level) noexcept {
    m_target = target;
    m_level = level;
}

void Log::event(LogLevel level, std::string_view event, const LogFields& fields) noexcept {
    if (level > m_level)
        return;
    try {
        write(level, logLine(level, event, fields));
    } catch (const std::exception&) {
        // Out of memory: there is nobody to tell.
        return;
    }
}

void Log::write(LogLevel level, const std::string& line) {
    if (m_target == LogTarget::syslog) {
        ::syslog(LOG_MAIL | priorityOf(level), "%s", line.c_str());
        return;
    }
    // One call a line, so that the lines of several threads and processes do not mix.
    const std::string whole = line + '\n';
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, whole.data(), whole.size());
}

} // namespace norvmilter
