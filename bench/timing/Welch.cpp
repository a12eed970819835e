#include "Welch.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace timing {

double welchT(const Moments& left, const Moments& right) {
    if (left.count() < fewest || right.count() < fewest) {
        return 0;
    }
    const double error = std::sqrt(left.variance() / static_cast<double>(left.count()) +
                                   right.variance() / static_cast<double>(right.count()));
    return error == 0 ? 0 : (right.mean() - left.mean()) / error;
}

void Comparison::setLimits() {
    std::sort(m_first.begin(), m_first.end());
    m_limits.front() = std::numeric_limits<double>::infinity();
    for (std::size_t crop = 1; crop != s_crops; ++crop) {
        // Denser towards the slow end, down to a tenth of a hundredth.
        const double share = 1 - std::pow(0.5, 10.0 * static_cast<double>(crop) / s_crops);
        m_limits[crop] = m_first[static_cast<std::size_t>(share * static_cast<double>(m_first.size() - 1))];
    }
}

void Comparison::add(std::size_t which, double cycles) {
    if (m_first.size() < s_first) {
        m_first.push_back(cycles);
        if (m_first.size() == s_first) {
            setLimits();
        }
        return;
    }
    for (std::size_t crop = 0; crop != s_crops; ++crop) {
        if (cycles <= m_limits[crop]) {
            m_moments[which][crop].add(cycles);
        }
    }
}

Difference Comparison::difference(std::size_t which) const {
    Difference furthest{0, 0, 0, 0};
    for (std::size_t crop = 0; crop != s_crops; ++crop) {
        const Moments& first = m_moments.front()[crop];
        const Moments& other = m_moments[which][crop];
        const double t = welchT(first, other);
        if (crop == 0 || std::abs(t) > std::abs(furthest.t)) {
            furthest = {t, other.mean() - first.mean(), first.mean(), first.count() + other.count()};
        }
    }
    return furthest;
}

} // namespace timing
