#include "Active.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

/// The main function of all tests under scripts/mutate. With NORV_MUTANTS in the environment the program starts once and answers
/// a line on standard input at a time, each with a process of its own that inherits what has started so far:
///
///     NUMBER SECONDS FILTER    runs these tests as that mutant: "passed", "failed CASE", "died CASE" or "late CASE", milliseconds
///     list                     names the tests, a line each, then an empty one
///     early                    the numbers that were asked for before main, in a line
///     reached SECONDS FILTER   runs these tests as no mutant: as above, then the numbers that were asked for
namespace {

namespace chrono = std::chrono;

/// What the process of a mutant tells the one that started it.
struct Told {
    char name[512];
    bool failed;
    unsigned char reached[norvmutants::most];
};

Told* told = nullptr;

class Telling : public testing::EmptyTestEventListener {
public:
    void OnTestStart(const testing::TestInfo& test) override {
        std::snprintf(told->name, sizeof told->name, "%s.%s", test.test_suite_name(), test.name());
    }
    void OnTestPartResult(const testing::TestPartResult& result) override {
        if (result.failed()) {
            told->failed = true;
        }
    }
};

void limit(int what, rlim_t most) {
    const rlimit limits{most, most};
    setrlimit(what, &limits);
}

[[noreturn]] void runHere(unsigned number, double seconds, const std::string& filter) {
    setpgid(0, 0);
    const int nothing = open("/dev/null", O_RDWR);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing, stream);
    }
    limit(RLIMIT_AS, rlim_t{6} << 30);
    limit(RLIMIT_CPU, static_cast<rlim_t>(seconds) + 2);
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_FSIZE, rlim_t{1} << 30);
    if (number != 0) {
        norvmutants::active = number;
    } else {
        std::memset(norvmutants::reached, 0, sizeof norvmutants::reached);
    }
    GTEST_FLAG_SET(filter, filter);
    GTEST_FLAG_SET(fail_fast, true);
    GTEST_FLAG_SET(catch_exceptions, true);
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    listeners.Append(new Telling);
    const int result = RUN_ALL_TESTS();
    if (number == 0) {
        std::memcpy(told->reached, norvmutants::reached, sizeof told->reached);
    }
    std::exit(result); // what ends the process is met, too
}

std::string run(unsigned number, double seconds, const std::string& filter) {
    std::memset(static_cast<void*>(told), 0, sizeof *told);
    const auto began = chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        runHere(number, seconds, filter);
    }
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    pollfd waited{handle, POLLIN, 0};
    const bool late = poll(&waited, 1, static_cast<int>(seconds * 1000)) == 0;
    kill(-child, SIGKILL); // and those that it started
    kill(child, SIGKILL);
    close(handle);
    int status = 0;
    waitpid(child, &status, 0);
    const auto took = chrono::duration_cast<chrono::milliseconds>(chrono::steady_clock::now() - began);
    const bool cpu = WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU;
    const char* const outcome = told->failed                                    ? "failed"
                                : late || cpu                                   ? "late"
                                : WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "passed"
                                                                                : "died";
    return std::string(outcome) + " " + (told->name[0] == '\0' ? "-" : told->name) + " " + std::to_string(took.count());
}

void tellNumbers(const unsigned char* reached) {
    for (unsigned number = 1; number < norvmutants::most; ++number) {
        if (reached[number] != 0) {
            std::cout << number << ' ';
        }
    }
    std::cout << '\n';
}

void tellNames() {
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    for (int suite = 0; suite < all.total_test_suite_count(); ++suite) {
        const testing::TestSuite& tests = *all.GetTestSuite(suite);
        for (int test = 0; test < tests.total_test_count(); ++test) {
            std::cout << tests.name() << '.' << tests.GetTestInfo(test)->name() << '\n';
        }
    }
    std::cout << '\n';
}

void answer(const std::string& line) {
    std::istringstream words(line);
    std::string first;
    std::string filter;
    double seconds = 0;
    words >> first;
    if (first == "list") {
        tellNames();
    } else if (first == "early") {
        tellNumbers(norvmutants::reached);
    } else {
        words >> seconds >> filter;
        const bool recorded = first == "reached";
        std::cout << run(recorded ? 0 : static_cast<unsigned>(std::stoul(first)), seconds, filter) << '\n';
        if (recorded) {
            tellNumbers(told->reached);
        }
    }
    std::cout.flush();
}

} // namespace

int main(int count, char** values) {
    testing::InitGoogleTest(&count, values);
    if (std::getenv("NORV_MUTANTS") == nullptr) {
        return RUN_ALL_TESTS();
    }
    told = static_cast<Told*>(mmap(nullptr, sizeof *told, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::string line;
    while (std::getline(std::cin, line)) {
        answer(line);
    }
    std::_Exit(0);
}
