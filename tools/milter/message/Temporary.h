#pragma once

/// \file
/// Trouble that may be over when the message is sent again: a store that cannot be read, a full disk, too little time.

#include <chrono>
#include <stdexcept>
#include <string>

namespace norvmilter {

/// The message is answered with 451, so that its sender keeps it. What is wrong with a message itself is never this.
class Temporary : public std::runtime_error {
public:
    /// \param text for the log: one line, escaped
    explicit Temporary(const std::string& text) : std::runtime_error(text) {}
};

/// Until when a message has to be judged.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    /// There is no hurry.
    Deadline() : m_end(Clock::time_point::max()) {}
    explicit Deadline(Clock::time_point end) : m_end(end) {}
    /// 0 seconds: no hurry.
    static Deadline in(std::chrono::seconds seconds) {
        return seconds.count() == 0 ? Deadline() : Deadline(Clock::now() + seconds);
    }

    [[nodiscard]] bool isOver() const { return m_end != Clock::time_point::max() && Clock::now() >= m_end; }
    /// \throws Temporary
    void check() const {
        if (isOver())
            throw Temporary("the time for judging the message is over");
    }

private:
    Clock::time_point m_end;
};

} // namespace norvmilter
