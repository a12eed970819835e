#include "files/Progress.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace norvcrypt {

namespace {

constexpr auto patience = std::chrono::milliseconds(500);
constexpr auto interval = std::chrono::milliseconds(100);
constexpr std::uint64_t mebibyte = 1U << 20U;
constexpr std::uint64_t barWidth = 30;

void show(const std::string& text) {
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
}

} // namespace

Progress::Progress(std::string what, Unit unit)
    : m_what(std::move(what)),
      m_unit(unit),
      m_terminal(isatty(STDERR_FILENO) == 1),
      m_next(std::chrono::steady_clock::now() + patience) {}

Progress::~Progress() {
    clear();
}

void Progress::clear() {
    if (std::exchange(m_drawn, false))
        show("\r\x1B[K");
}

void Progress::advance(std::uint64_t count) {
    m_done += count;
    if (!m_terminal || std::chrono::steady_clock::now() < m_next)
        return;
    m_next = std::chrono::steady_clock::now() + interval;
    draw();
}

void Progress::draw() {
    std::string line = "\r" + m_what + " ";
    if (m_total != 0) {
        // A file may grow while it is read.
        const std::uint64_t done = std::min(m_done, m_total);
        const auto filled = static_cast<std::size_t>(done / (m_total / barWidth + 1));
        line += "[" + std::string(filled, '#') + std::string(barWidth - filled, ' ') + "] " +
                std::to_string(done / (m_total / 100 + 1)) + "% ";
    }
    line += m_unit == Unit::bytes ? std::to_string(m_done / mebibyte) + " MiB" : std::to_string(m_done) + " done";
    show(line + "\x1B[K");
    m_drawn = true;
}

} // namespace norvcrypt
