// Whether the time that a failed decryption takes tells why it failed: classes of messages in random order, each measured in
// cycles, compared by Welch's t. See docs/timing.md.
//   --runs=N      measurements of each probe, 1,000,000 by default
//   --bits=N      of the RSA key, 2048 by default
//   --only=TEXT   probes whose names contain it
//   --self-check  the control alone: equal classes must be alike, and classes that differ on purpose must not
// SIGINT and SIGTERM end the measuring: what was measured is printed.
#include "Probes.h"
#include "Welch.h"

#include <norvcrypto/Crypto.h>

#include <openssl/crypto.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string_view>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace {

using timing::Bytes;
using timing::Expected;

constexpr double s_threshold = 5;
/// Inputs of each class, none of which is at the same address and under the same key as another one.
constexpr std::size_t s_inputs = 64;

volatile std::sig_atomic_t s_stopped = 0;

extern "C" void stop(int /*signal*/) {
    s_stopped = 1;
}

struct Options {
    std::uint64_t runs = 1'000'000;
    unsigned int bits = 2048;
    std::string only;
    bool selfCheck = false;
};

template <class Number> Number numberIn(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number == 0) {
        throw std::invalid_argument("no number: " + std::string(text));
    }
    return number;
}

Options optionsOf(int count, char** words) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string_view word(words[i]);
        const std::string_view value = word.substr(std::min(word.find('=') + 1, word.size()));
        if (word == "--self-check") {
            options.selfCheck = true;
        } else if (word.starts_with("--runs=")) {
            options.runs = numberIn<std::uint64_t>(value);
        } else if (word.starts_with("--bits=")) {
            options.bits = numberIn<unsigned int>(value);
        } else if (word.starts_with("--only=")) {
            options.only = value;
        } else {
            throw std::invalid_argument("not known: " + std::string(word));
        }
    }
    return options;
}

/// Cycles of the processor's clock where it has one to ask, else nanoseconds.
std::uint64_t now() noexcept {
#if defined(__x86_64__)
    _mm_lfence();
    const std::uint64_t cycles = __rdtsc();
    _mm_lfence();
    return cycles;
#else
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

/// So that no input is colder than another one.
void touch(const Bytes& input) noexcept {
    const volatile unsigned char* const octets = input.data();
    for (std::size_t i = 0; i != input.size(); ++i) {
        static_cast<void>(octets[i]);
    }
}

/// Has the inputs of all classes lie in turns.
std::vector<std::vector<Bytes>> inputsOf(const timing::Probe& probe) {
    std::vector<std::vector<Bytes>> inputs(probe.classes.size());
    for (std::size_t i = 0; i != s_inputs; ++i) {
        for (std::size_t which = 0; which != probe.classes.size(); ++which) {
            inputs[which].push_back(probe.classes[which].make());
            if (inputs[which].back().size() != inputs.front().front().size()) {
                throw std::logic_error("inputs of other lengths take other times: " + probe.classes[which].name);
            }
        }
    }
    return inputs;
}

/// True when it came out as it has to.
bool print(const timing::Probe& probe, const timing::Comparison& comparison, std::size_t which,
           std::uint64_t setAside) {
    const timing::Class& tested = probe.classes[which];
    const timing::Difference difference = comparison.difference(which);
    const bool leaks = std::abs(difference.t) >= s_threshold;
    const bool enough = comparison.count(0) >= timing::fewest && comparison.count(which) >= timing::fewest;
    const bool good =
        enough && (tested.expected == Expected::differs || leaks == (tested.expected == Expected::mustLeak));
    const std::string why = tested.why.empty() ? "" : " (" + tested.why + ")";
    std::printf("| %s | %s | %s | %llu | %+.2f | %+.0f of %.0f | %s%s |\n", probe.name.c_str(),
                probe.classes.front().name.c_str(), tested.name.c_str(),
                static_cast<unsigned long long>(comparison.count(0) + comparison.count(which)), difference.t,
                difference.cycles, difference.ofAll,
                !enough ? "not told"
                : leaks ? "differs"
                        : "alike",
                why.c_str());
    if (!enough) {
        std::printf("  <-- TOO FEW\n");
    } else if (!good) {
        std::printf("  <-- %s\n", leaks ? "LEAKS" : "THE MEASURING FINDS NOTHING");
    }
    if (setAside != 0) {
        std::fprintf(stderr, "%s: %llu set aside, which a random content key opened or did not\n", tested.name.c_str(),
                     static_cast<unsigned long long>(setAside));
    }
    return good;
}

bool measure(const timing::Probe& probe, std::uint64_t runs) {
    const auto inputs = inputsOf(probe);
    const std::size_t classes = probe.classes.size();
    timing::Comparison comparison(classes);
    std::vector<std::uint64_t> setAside(classes);
    std::mt19937_64 random(std::random_device{}());
    for (std::uint64_t run = 0; run != runs && s_stopped == 0; ++run) {
        const std::uint64_t drawn = random();
        const std::size_t which = drawn % classes;
        const Bytes& input = inputs[which][(drawn >> 32U) % s_inputs];
        touch(input);
        const std::uint64_t before = now();
        const bool good = probe.run(input);
        const std::uint64_t after = now();
        // What a random key opens into a right padding, one time in 256, is another answer.
        if (good == probe.classes[which].succeeds) {
            comparison.add(which, static_cast<double>(after - before));
        } else {
            ++setAside[which];
        }
    }
    bool good = true;
    for (std::size_t which = 1; which != classes; ++which) {
        good = print(probe, comparison, which, setAside[which]) && good;
    }
    std::fflush(stdout);
    return good;
}

} // namespace

int main(int count, char** words) {
    try {
        const Options options = optionsOf(count, words);
        Norvane::Crypto::initialize();
        std::signal(SIGINT, stop);
        std::signal(SIGTERM, stop);
        std::printf("%s, RSA of %u bits, %llu runs of each\n\n", OpenSSL_version(OPENSSL_VERSION), options.bits,
                    static_cast<unsigned long long>(options.runs));
        std::printf(
            "| what | first class | other class | runs of both | t | cycles | |\n|---|---|---|---|---|---|---|\n");
        bool good = true;
        bool any = false;
        for (const timing::Probe& probe : timing::probes(options.bits)) {
            if (s_stopped != 0) {
                break;
            }
            if (options.selfCheck ? probe.isControl : probe.name.find(options.only) != std::string::npos) {
                good = measure(probe, options.runs) && good;
                any = true;
            }
        }
        if (s_stopped != 0) {
            std::fprintf(stderr, "ended before all was measured\n");
            return EXIT_FAILURE;
        }
        if (!any) {
            throw std::invalid_argument("nothing is called so: " + options.only);
        }
        return good ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 2;
    }
}
