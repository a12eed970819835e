#include "Contest.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace bench {

namespace {

/// Seconds of processor time of this process, its threads and the children that have ended.
double processorTime() {
    timespec own{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &own);
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return static_cast<double>(own.tv_sec) + 1e-9 * static_cast<double>(own.tv_nsec) + seconds(children.ru_utime) +
           seconds(children.ru_stime);
}

double wallTime() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Running {
    std::string who;
    Run run;
    unsigned int repetitions = 1;
};

/// So many that the clock's steps and its call do not matter.
unsigned int repetitionsOf(const Run& run) {
    constexpr double enough = 0.01;
    run(); // warms up, and throws when it cannot be done
    for (unsigned int count = 1;; count *= 4) {
        const double start = processorTime();
        for (unsigned int i = 0; i != count; ++i) {
            run();
        }
        const double took = processorTime() - start;
        if (took >= enough / 4) {
            return std::max(1U, static_cast<unsigned int>(count * enough / took));
        }
    }
}

} // namespace

void require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

void Contest::add(const std::string& task, const std::string& who, Prepare prepare, std::size_t most) {
    m_contestants.push_back({task, who, std::move(prepare), most});
}

void Contest::over(const std::string& task, std::vector<std::size_t> points) {
    m_tasks.push_back({task, std::move(points)});
}

bool Contest::runPoint(const Task& task, std::size_t x, unsigned int rounds, double seconds) {
    std::vector<Running> running;
    for (const Contestant& contestant : m_contestants) {
        if (contestant.task != task.name || x > contestant.most ||
            (!m_only.empty() && !m_only.contains(contestant.who))) {
            continue;
        }
        try {
            Running one{contestant.who, contestant.prepare(x), 1};
            one.repetitions = repetitionsOf(one.run);
            running.push_back(std::move(one));
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "%s, %zu, left out: %s: %s\n", task.name.c_str(), x, contestant.who.c_str(),
                         failure.what());
        }
    }
    const double start = wallTime();
    for (unsigned int round = 0; round != rounds && (round < 3 || wallTime() - start < seconds); ++round) {
        for (std::size_t i = 0; i != running.size(); ++i) {
            const Running& one = running[(round + i) % running.size()];
            const double begin = processorTime();
            for (unsigned int j = 0; j != one.repetitions; ++j) {
                one.run();
            }
            std::printf("\"%s\",\"%s\",%zu,%u,%.9g\n", task.name.c_str(), one.who.c_str(), x, round,
                        (processorTime() - begin) / one.repetitions);
        }
        std::fflush(stdout);
    }
    return !running.empty();
}

bool Contest::run(const std::string& filter, unsigned int rounds, double secondsForEach) {
    std::puts("task,who,x,round,seconds");
    bool any = false;
    for (const Task& task : m_tasks) {
        if (task.name.find(filter) == std::string::npos) {
            continue;
        }
        for (const std::size_t x : task.points) {
            if (m_onlyAt != 0 && x != m_onlyAt) {
                continue;
            }
            std::fprintf(stderr, "%s, %zu\n", task.name.c_str(), x);
            any = runPoint(task, x, rounds, secondsForEach) || any;
        }
    }
    return any;
}

} // namespace bench
