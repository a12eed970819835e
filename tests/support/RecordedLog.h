#pragma once

// What is logged while a test looks.

#include <norvcmsg/Logger.h>

#include <memory>
#include <vector>

namespace norvtest {

/// Keeps what is logged while it lives.
class RecordedLog {
public:
    RecordedLog() { Norvane::Logger::instance(false).sink(m_sink); }
    ~RecordedLog() { Norvane::Logger::instance(false).sink(nullptr); }
    RecordedLog(const RecordedLog&) = delete;
    RecordedLog& operator=(const RecordedLog&) = delete;
    [[nodiscard]] std::vector<Norvane::LogRecord> records() const { return m_sink->records(); }
    /// The event codes, in order.
    [[nodiscard]] std::vector<unsigned int> events() const {
        std::vector<unsigned int> codes;
        for (const auto& record : records()) {
            codes.push_back(record.event);
        }
        return codes;
    }
    void clear() { m_sink->clear(); }

private:
    std::shared_ptr<Norvane::RecordingLogSink> m_sink = std::make_shared<Norvane::RecordingLogSink>();
};

} // namespace norvtest
