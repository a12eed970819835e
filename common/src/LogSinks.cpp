#include "LogSinks.h"

#include <norvcmsg/Escape.h>

#include <norvcmsg/Utf8.h>

#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>

#include <locale>
#include <sstream>
#include <string_view>
#include <utility>

namespace Norvane {

namespace {

constexpr std::size_t shownBytes = 2048;

/// A field, cut to a length that a log can bear, escaped so that it can neither break the line nor end the field.
std::string shown(std::string_view field) {
    auto length = std::min(field.size(), shownBytes);
    while (length < field.size() && length > shownBytes - 4 && (static_cast<unsigned char>(field[length]) >> 6U) == 2) {
        --length; // not inside a character
    }
    auto text = escapeForDisplay(field.substr(0, length));
    for (std::size_t bar = 0; (bar = text.find('|', bar)) != std::string::npos;) {
        text.replace(bar, 1, "\\x7C");
    }
    if (length < field.size()) {
        text += "... (" + std::to_string(field.size() - length) + " more bytes)";
    }
    return text;
}

/// Level 0 is what an operator should see; the talkative levels are for debugging.
spdlog::level::level_enum severityOf(int level) {
    if (level < 0) {
        return spdlog::level::err;
    }
    if (level == 0) {
        return spdlog::level::warn;
    }
    return level == 1 ? spdlog::level::info : spdlog::level::debug;
}

} // namespace

std::string lineOf(const LogRecord& record) {
    std::ostringstream line;
    line.imbue(std::locale::classic()); // the host's locale must not group the digits of an event
    line << "0x" << std::hex << std::uppercase << record.event << ": ";
    const char* separator = "";
    for (const auto& field : record.fields) {
        line << separator << shown(field);
        separator = " | ";
    }
    return line.str();
}

TextLogSink::TextLogSink() {
    open();
}

TextLogSink::~TextLogSink() = default;

void TextLogSink::open() {
    // The old connection first: closing it would close the new one.
    m_target.reset();
    if (m_syslog) {
        m_target = std::make_unique<spdlog::sinks::syslog_sink_st>(m_name, LOG_PID, LOG_MAIL, false);
    } else {
        m_target = std::make_unique<spdlog::sinks::stderr_sink_st>();
        m_target->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z [%P] %l: %v");
    }
}

void TextLogSink::useStandardError() {
    const std::lock_guard lock(m_mutex);
    m_syslog = false;
    open();
}

void TextLogSink::useSyslog(const std::string& name) {
    const std::lock_guard lock(m_mutex);
    m_syslog = true;
    m_name = name;
    open();
}

void TextLogSink::renew() {
    const std::lock_guard lock(m_mutex);
    open();
}

void TextLogSink::record(const LogRecord& record) {
    const auto line = lineOf(record);
    const std::lock_guard lock(m_mutex);
    if (m_target != nullptr) {
        m_target->log(spdlog::details::log_msg("", severityOf(record.level), line));
    }
}

} // namespace Norvane
