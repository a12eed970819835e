#include <norvcmsg/Logger.h>

#include "LogFields.h"
#include "LogSinks.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <utility>

namespace Norvane {

namespace {

class LoggerImpl : public Logger {
public:
    void sink(const std::shared_ptr<LogSink>& sink) override {
        if (sink == nullptr) {
            m_text->useStandardError();
        }
        exchange(sink != nullptr ? sink : m_text);
    }

    void useSyslog(const std::string& name) override {
        m_text->useSyslog(name);
        exchange(m_text);
    }

    void level(int highest) override { m_level = highest; }
    [[nodiscard]] int level() const override { return m_level; }

    void message(unsigned int event, int level, const char* format, ...) override
        __attribute__((format(printf, 4, 5))) {
        if (level > m_level) {
            return;
        }
        const int error = errno;
        std::va_list arguments;
        va_start(arguments, format);
        write(event, level, format == nullptr ? "" : format, arguments, error);
        va_end(arguments);
        errno = error;
    }

    void renew() { m_text->renew(); }

    // A fork copies locks as they are: held by this thread, they are free again on both sides.
    void lock() {
        m_mutex.lock();
        m_text->mutex().lock();
    }
    void unlock() {
        m_text->mutex().unlock();
        m_mutex.unlock();
    }

private:
    void write(unsigned int event, int level, const char* format, std::va_list arguments, int error) noexcept {
        try {
            current()->record({event, level, format, formatLogFields(format, arguments, error)});
        } catch (...) { // NOLINT(bugprone-empty-catch): a log that fails must not stop the work that it tells about
        }
    }

    std::shared_ptr<LogSink> current() {
        const std::lock_guard lock(m_mutex);
        return m_sink;
    }

    void exchange(const std::shared_ptr<LogSink>& sink) {
        auto swapped = sink; // the old one goes after the lock: it is the caller's and may log
        const std::lock_guard lock(m_mutex);
        m_sink.swap(swapped);
    }

    std::mutex m_mutex;
    const std::shared_ptr<TextLogSink> m_text = std::make_shared<TextLogSink>();
    std::shared_ptr<LogSink> m_sink = m_text;
    std::atomic<int> m_level{0};
};

/// Never destroyed, so that what ends after it can still log.
LoggerImpl& theLogger() {
    static LoggerImpl& logger = *std::make_unique<LoggerImpl>().release();
    static const int registered =
        pthread_atfork([] { theLogger().lock(); }, [] { theLogger().unlock(); }, [] { theLogger().unlock(); });
    static_cast<void>(registered);
    return logger;
}

} // namespace

Logger& Logger::instance(bool renew) {
    auto& logger = theLogger();
    if (renew) {
        logger.renew();
    }
    return logger;
}

Logger::Logger() = default;

Logger::~Logger() = default;

LogSink::LogSink() = default;

LogSink::~LogSink() = default;

struct RecordingLogSink::State {
    mutable std::mutex mutex;
    std::vector<LogRecord> records;
};

RecordingLogSink::RecordingLogSink() : m_state(std::make_unique<State>()) {}

RecordingLogSink::~RecordingLogSink() = default;

void RecordingLogSink::record(const LogRecord& record) {
    const std::lock_guard lock(m_state->mutex);
    m_state->records.push_back(record);
}

std::vector<LogRecord> RecordingLogSink::records() const {
    const std::lock_guard lock(m_state->mutex);
    return m_state->records;
}

void RecordingLogSink::clear() {
    const std::lock_guard lock(m_state->mutex);
    m_state->records.clear();
}

} // namespace Norvane
