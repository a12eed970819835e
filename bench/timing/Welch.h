#pragma once

/// \file
/// Whether two classes of measurements differ: Welch's t, kept up while they come, over all of them and over those below
/// percentiles, since what interrupts a program makes long tails that hide small differences.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace timing {

/// Count, mean and variance of what was added (Welford).
class Moments {
public:
    void add(double value) noexcept {
        ++m_count;
        const double off = value - m_mean;
        m_mean += off / static_cast<double>(m_count);
        m_squares += off * (value - m_mean);
    }
    [[nodiscard]] std::uint64_t count() const noexcept { return m_count; }
    [[nodiscard]] double mean() const noexcept { return m_mean; }
    [[nodiscard]] double variance() const noexcept {
        return m_count < 2 ? 0 : m_squares / static_cast<double>(m_count - 1);
    }

private:
    std::uint64_t m_count = 0;
    double m_mean = 0;
    double m_squares = 0;
};

/// Fewer measurements than these tell nothing.
inline constexpr std::uint64_t fewest = 100;

/// Zero for fewer of either than tell anything.
double welchT(const Moments& left, const Moments& right);

/// What became of one class beside the first one.
struct Difference {
    double t;         ///< of the percentile where it is furthest from zero
    double cycles;    ///< by which the means differ there
    double ofAll;     ///< the mean of the first class there
    std::uint64_t of; ///< measurements of both there
};

/// The measurements of some classes.
class Comparison {
public:
    explicit Comparison(std::size_t classes) : m_moments(classes) {}

    void add(std::size_t which, double cycles);
    /// \param which not the first one, which it is compared with
    [[nodiscard]] Difference difference(std::size_t which) const;
    [[nodiscard]] std::uint64_t count(std::size_t which) const { return m_moments[which].front().count(); }

private:
    /// The first measurements tell where the percentiles are and are not counted: caches are cold, too.
    static constexpr std::size_t s_first = 2000;
    static constexpr std::size_t s_crops = 100;

    void setLimits();

    std::vector<double> m_first;
    std::array<double, s_crops> m_limits{}; ///< the first one lets everything pass
    std::vector<std::array<Moments, s_crops>> m_moments;
};

} // namespace timing
