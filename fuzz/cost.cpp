// What hostile inputs cost, counted in operations (Work.h), for three sizes of each: how the work and the memory grow, and
// whether they grow no faster than they may. See docs/costs.md.
#include "Driver.h"
#include "HostileMails.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

double growth(std::uint64_t first, std::uint64_t last) {
    return std::log2(static_cast<double>(last + 1) / static_cast<double>(first + 1)) / 2;
}

fuzz::Work workOf(const fuzz::Prepared& input) {
    fuzz::Counting counting;
    input.act();
    return counting.stop();
}

unsigned long long number(std::uint64_t value) {
    return value;
}

/// Prints three rows; true when nothing grows faster than it may.
bool measure(const fuzz::Case& input) {
    std::printf("%s (n: %s)\n", input.input, input.chosen);
    static_cast<void>(workOf(input.prepare(input.smallest))); // what is fetched on first use
    std::vector<fuzz::Work> works;
    for (const std::size_t size : {input.smallest, 2 * input.smallest, 4 * input.smallest}) {
        const fuzz::Prepared made = input.prepare(size);
        works.push_back(workOf(made));
        const fuzz::Work& work = works.back();
        std::printf("%11zu %10zu %12llu %12llu %10llu %9llu %11llu %11llu %13llu\n", size, made.octets,
                    number(work.products), number(work.hashed), number(work.ciphered), number(work.elements),
                    number(work.comparisons), number(work.allocated), number(work.total()));
    }
    const double work = growth(works.front().total(), works.back().total());
    const double memory = growth(works.front().allocated, works.back().allocated);
    const bool good = work <= input.mostGrowth && memory <= input.mostGrowth;
    std::printf("%11s grows as n^%.2f, memory as n^%.2f; at most n^%.1f%s\n", "", work, memory, input.mostGrowth,
                good ? "" : "  <-- TOO FAST");
    return good;
}

double processorSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Prints a row; true when it costs no more than it may. The time is that of a build with sanitizers, and tells nothing of good or bad.
bool measure(const fuzz::SmallMessage& message) {
    const fuzz::Prepared made = message.prepare();
    static_cast<void>(workOf(made));
    const double before = processorSeconds();
    const fuzz::Work work = workOf(made);
    const double milliseconds = 1000 * (processorSeconds() - before);
    const bool good = work.total() <= fuzz::smallWork && work.held <= fuzz::smallMemory;
    std::printf("%-64s %6zu %13llu %11llu %9llu %8.1f%s\n", message.input, made.octets, number(work.total()),
                number(work.allocated), number(work.held), milliseconds, good ? "" : "  <-- TOO MUCH");
    return good;
}

/// The rows that are asked for, of which the first has the number 1: "FROM-TO", "ROW", or all where nothing was said.
class Rows {
public:
    explicit Rows(const std::vector<std::string>& arguments) {
        if (arguments.empty()) {
            return;
        }
        const std::string& word = arguments.front();
        const std::size_t dash = std::min(word.find('-'), word.size());
        const auto read = [&word](std::size_t from, std::size_t to, std::size_t& into) {
            const auto [end, error] = std::from_chars(word.data() + from, word.data() + to, into);
            return error == std::errc() && end == word.data() + to;
        };
        if (arguments.size() != 1 || !read(0, dash, m_first) ||
            (dash != word.size() && !read(dash + 1, word.size(), m_last))) {
            throw std::invalid_argument("rows are asked for as 25-40, or as 25");
        }
        m_last = dash == word.size() ? m_first : m_last;
    }
    [[nodiscard]] bool has(std::size_t number) {
        const bool is = number >= m_first && number <= m_last;
        m_any = m_any || is;
        return is;
    }
    /// Of none of them nothing could be said, and nothing grows.
    [[nodiscard]] bool any() const noexcept { return m_any; }

private:
    std::size_t m_first = 0;
    std::size_t m_last = std::numeric_limits<std::size_t>::max();
    bool m_any = false;
};

} // namespace

int main(int count, char** values) {
    try {
        Rows rows({values + 1, values + count});
        std::size_t row = 0;
        fuzz::start();
        std::printf("%11s %10s %12s %12s %10s %9s %11s %11s %13s\n", "n", "octets", "products", "hashed", "ciphered",
                    "elements", "comparisons", "allocated", "work");
        bool good = true;
        for (const fuzz::Case& input : fuzz::hostileInputs()) {
            good = (!rows.has(++row) || measure(input)) && good;
            std::fflush(stdout);
        }
        std::printf("\nOf 1 KB: work up to %llu, octets held at once up to %llu\n%-64s %6s %13s %11s %9s %8s\n",
                    number(fuzz::smallWork), number(fuzz::smallMemory), "", "octets", "work", "allocated", "held",
                    "ms");
        for (const fuzz::SmallMessage& message : fuzz::smallMessages()) {
            good = (!rows.has(++row) || measure(message)) && good;
            std::fflush(stdout);
        }
        if (!rows.any()) {
            throw std::invalid_argument("there are rows 1 to " + std::to_string(row));
        }
        return good ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 2;
    }
}
