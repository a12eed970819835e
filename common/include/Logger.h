#ifndef NORVCMSG_LOGGER_H
#define NORVCMSG_LOGGER_H

/// \file
/// The appliance's log. A record has an event code (32 bits, what operators match on), a level and a message made from
/// a printf-style format whose fields are separated by the byte 0x01. Where records go is decided by sinks: standard
/// error unless told otherwise, syslog on request, or a sink of the caller's. The library's own sinks write one line
/// per record, escaped as by `escapeForDisplay`, fields separated by " | " (a bar inside a field is shown as `\x7C`) and
/// cut after 2048 bytes each. They show levels below 0 as errors, 0 as warnings, 1 as information, higher ones as
/// debug.
///
/// \code
/// auto sink = std::make_shared<Norvane::RecordingLogSink>();
/// Norvane::Logger::instance(false).sink(sink);
/// Norvane::Logger::instance(false).message(0x4000000, 0, "%d\x01%s", 7, "too early");
/// sink->records().front().fields; // "7", "too early"
/// \endcode
///
/// Threads: every operation of `Logger` is safe from several threads, and in the child of a fork.

#include <norvcmsg/Export.h>

#include <memory>
#include <string>
#include <vector>

namespace Norvane {

/// One record as a sink gets it.
struct LogRecord {
    unsigned int event;
    int level;                       ///< 0 is the ordinary level; higher numbers are more talkative
    std::string format;              ///< as the caller gave it
    std::vector<std::string> fields; ///< one per field of the format; a field's text never splits it
};

/// Where records go. `record` may be called from several threads at once; what it throws is swallowed.
class NORVCMSG_EXPORT LogSink {
public:
    LogSink();
    virtual ~LogSink();
    virtual void record(const LogRecord& record) = 0;
};

/// A sink that keeps the records, for tests and for programs that show them elsewhere.
class NORVCMSG_EXPORT RecordingLogSink : public LogSink {
public:
    RecordingLogSink();
    ~RecordingLogSink() override;
    void record(const LogRecord& record) override;
    [[nodiscard]] std::vector<LogRecord> records() const;
    void clear();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// The process-wide log; every operation is safe from several threads.
class NORVCMSG_EXPORT Logger {
public:
    /// The logger of this process; it is never destroyed. True makes the library's own sink anew (its connection to
    /// syslog after a fork, say) and leaves a sink of the caller's alone; false just returns the logger.
    static Logger& instance(bool renew);

    virtual ~Logger();
    /// Replaces every sink by `sink`; null goes back to standard error.
    virtual void sink(const std::shared_ptr<LogSink>& sink) = 0;
    /// Sends records to syslog under `name` from now on.
    virtual void useSyslog(const std::string& name) = 0;
    /// Records above this level are dropped; the default is 0.
    virtual void level(int highest) = 0;
    [[nodiscard]] virtual int level() const = 0;
    /// Writes one record: the event code, the level, and a printf-style format (d i u x X o c s p f F e E g G a A m,
    /// with flags, width, precision and length modifiers) with the byte 0x01 between its fields; such a byte in an
    /// argument does not separate. A null text prints as "(null)"; from a conversion that is none of these (n, wide or
    /// numbered ones too) the rest of the format is taken as it stands. Never throws, and leaves errno alone.
    virtual void message(unsigned int event, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5))) = 0;

protected:
    Logger();
};

} // namespace Norvane

#endif
