// The statistics of scripts/oracles, which say whether two kinds of messages take different times.

#include "timing/Welch.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

using namespace timing;

namespace {

/// Student's sleep data, which every textbook has: Welch's t of the ten and the ten is 1.8608.
constexpr std::array first{0.7, -1.6, -0.2, -1.2, -0.1, 3.4, 3.7, 0.8, 0.0, 2.0};
constexpr std::array second{1.9, 0.8, 1.1, 0.1, -0.1, 4.4, 5.5, 1.6, 4.6, 3.4};

template <class Values> Moments momentsOf(const Values& values, int times) {
    Moments moments;
    for (int round = 0; round != times; ++round) {
        for (const double value : values) {
            moments.add(value);
        }
    }
    return moments;
}

TEST(WelchT, IsThatOfTheTextbook) {
    const Moments ten = momentsOf(first, 1);
    EXPECT_EQ(10U, ten.count());
    EXPECT_DOUBLE_EQ(0.75, ten.mean());
    EXPECT_NEAR(3.200556, ten.variance(), 1e-6); // R: var(sleep$extra[1:10])
    EXPECT_EQ(0, welchT(ten, momentsOf(second, 1))) << "ten of each tell nothing";
    // Ten times the same, reckoned with the means and variances of Python's statistics.
    EXPECT_NEAR(6.171620, welchT(momentsOf(first, 10), momentsOf(second, 10)), 1e-6);
    EXPECT_NEAR(-6.171620, welchT(momentsOf(second, 10), momentsOf(first, 10)), 1e-6);
    EXPECT_EQ(0, welchT(momentsOf(std::array{1.0}, 100), momentsOf(std::array{1.0}, 100)));
}

/// Measurements of two classes in random order, one in fifty with an interruption that is longer than all else.
Comparison measured(double difference, int runs, int seed) {
    std::mt19937_64 random(static_cast<unsigned int>(seed));
    std::normal_distribution<double> spread(0, 10);
    std::uniform_int_distribution<int> chance(0, 49);
    Comparison comparison(2);
    for (int run = 0; run != runs; ++run) {
        const std::size_t which = random() % 2;
        comparison.add(which, 1000 + spread(random) + (which == 1 ? difference : 0) +
                                  (chance(random) == 0 ? 100000.0 * chance(random) : 0));
    }
    return comparison;
}

TEST(WelchComparison, SetsTheFirstAsideAndSaysNothingOfFew) {
    EXPECT_EQ(0U, measured(50, 2000, 1).count(0) + measured(50, 2000, 1).count(1));
    const Comparison few = measured(50, 2100, 1);
    EXPECT_EQ(100U, few.count(0) + few.count(1));
    EXPECT_EQ(0, few.difference(1).t);
}

TEST(WelchComparison, FindsASmallDifferenceBelowInterruptions) {
    const Comparison slower = measured(1, 100000, 2);
    const Difference found = slower.difference(1);
    EXPECT_GT(found.t, 5);
    EXPECT_NEAR(1, found.cycles, 0.5);
    EXPECT_LT(measured(-1, 100000, 3).difference(1).t, -5);
    for (int seed = 4; seed != 10; ++seed) {
        EXPECT_LT(std::abs(measured(0, 100000, seed).difference(1).t), 5) << seed;
    }
}

} // namespace
