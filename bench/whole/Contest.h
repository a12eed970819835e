#pragma once

/// \file
/// Several programs and libraries at the same work, in turns. In each round every contestant does a task once (many times, where
/// that takes microseconds), beginning with another one each time; what a round took is written down as processor time, that of
/// child processes included. What is compared later are the times of one round with one another: machines differ and are
/// shared.
///
/// \code
/// contest.add("digest", "EVP_DigestUpdate", [](std::size_t size) {
///     auto state = ...;                 // not measured
///     return [=] { ... };               // measured; throws when the work was not done
/// });
/// \endcode

#include <cstddef>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace bench {

/// What is measured.
using Run = std::function<void()>;
/// Makes it ready for a size of the body, or for the number that a curve is about.
using Prepare = std::function<Run(std::size_t)>;

inline constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

class Contest {
public:
    /// \param task for example "digest"; \param who for example "HasherMediaOut"; \param most it is not asked for more
    void add(const std::string& task, const std::string& who, Prepare prepare, std::size_t most = unlimited);
    /// The sizes or numbers that a task is done for.
    void over(const std::string& task, std::vector<std::size_t> points);
    /// Leaves out all others, for profiles and quick comparisons: nobody for no names, no size or number for 0.
    void only(const std::set<std::string>& who, std::size_t x) {
        m_only = who;
        m_onlyAt = x;
    }
    /// Runs the tasks whose name contains `filter`, and writes lines of "task","who",x,round,seconds to standard output. One that
    /// fails is named on standard error and left out. False when nothing was run.
    bool run(const std::string& filter, unsigned int rounds, double secondsForEach);

private:
    struct Contestant {
        std::string task;
        std::string who;
        Prepare prepare;
        std::size_t most;
    };
    struct Task {
        std::string name;
        std::vector<std::size_t> points;
    };
    bool runPoint(const Task& task, std::size_t x, unsigned int rounds, double seconds);

    std::set<std::string> m_only;
    std::size_t m_onlyAt = 0;
    std::vector<Task> m_tasks;
    std::vector<Contestant> m_contestants;
};

/// Throws when a step of the work fails, so that nobody wins by not doing it.
void require(bool done, const char* what);

/// Keeps a value from being optimised away.
template <class Value> void keep(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

} // namespace bench
