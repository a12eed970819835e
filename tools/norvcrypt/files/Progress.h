#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace norvcrypt {

/// A bar on standard error for work that takes longer than a moment; nothing at all when that is no terminal. The bar
/// goes away with the object.
class Progress {
public:
    /// What is counted.
    enum class Unit { bytes, inputs };

    explicit Progress(std::string what, Unit unit = Unit::bytes);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// How many there will be in all; 0, as at first, is not known.
    void expect(std::uint64_t total) noexcept { m_total = total; }
    /// That many more are done.
    void advance(std::uint64_t count);
    /// Takes the bar away; it comes again when there is more.
    void clear();

private:
    void draw();

    std::string m_what;
    Unit m_unit;
    bool m_terminal;
    bool m_drawn = false;
    std::uint64_t m_total = 0;
    std::uint64_t m_done = 0;
    std::chrono::steady_clock::time_point m_next;
};

} // namespace norvcrypt
