#pragma once

/// \file
/// The sink that writes records as lines of text, to standard error or syslog.

#include <norvcmsg/Logger.h>

#include <memory>
#include <mutex>
#include <string>

namespace spdlog::sinks {
class sink;
}

namespace Norvane {

/// Writes one line per record. Safe from several threads.
class TextLogSink : public LogSink {
public:
    TextLogSink();
    ~TextLogSink() override;
    void record(const LogRecord& record) override;
    void useStandardError();
    void useSyslog(const std::string& name);
    /// Opens anew what is written to.
    void renew();

    /// Guards what is written to; held over a fork.
    std::mutex& mutex() noexcept { return m_mutex; }

private:
    void open();

    std::mutex m_mutex;
    std::string m_name; // as syslog shows it
    bool m_syslog = false;
    std::unique_ptr<spdlog::sinks::sink> m_target;
};

/// A record as one line: the event, then the fields.
[[nodiscard]] std::string lineOf(const LogRecord& record);

} // namespace Norvane
