// Compares the readers of CMS with OpenSSL over the messages of Messages.h: as they are, cut at every octet, and changed in
// as many ways as asked for. Prints how often each outcome came about; fails when one is unexplained.
#include "Differential.h"
#include "Messages.h"
#include "Mutations.h"

#include <norvcmsg/Logger.h>
#include <norvcrypto/Crypto.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

namespace {

using fuzz::Bytes;
using fuzz::Outcome;

class Silence : public Norvane::LogSink {
public:
    void record(const Norvane::LogRecord& /*record*/) override {}
};

struct Options {
    std::size_t count = 100000;
    std::uint64_t number = 1;
    std::size_t cutStep = 1;
    std::size_t mostFindings = 20;
    long seconds = 0;
    std::string input;
    std::string folder;
    std::string reader;
    std::string told;
};

class Comparing {
public:
    Comparing(const char* name, fuzz::Comparison (*compare)(const Bytes&), const Options& options)
        : m_name(name),
          m_compare(compare),
          m_options(options) {}

    /// False when something is unexplained.
    bool run(const std::vector<fuzz::Seed>& seeds) {
        for (const fuzz::Seed& seed : seeds) {
            one(m_seeds, seed.second, seed.first);
            for (std::size_t length = 0; length < seed.second.size(); length += m_options.cutStep) {
                Bytes cut(seed.second.begin(), seed.second.begin() + static_cast<std::ptrdiff_t>(length));
                one(m_cuts, cut, "cut");
            }
        }
        const std::vector<Bytes> octets = fuzz::octetsOf(seeds);
        fuzz::Mutator mutator(octets, m_options.number);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(m_options.seconds);
        const auto inTime = [&] { return m_options.seconds == 0 || std::chrono::steady_clock::now() < end; };
        for (std::size_t i = 0; i < m_options.count && m_findings < m_options.mostFindings && inTime(); ++i) {
            one(m_changed, mutator.next(), "changed");
        }
        print();
        return m_findings == 0;
    }

private:
    void one(fuzz::Counts& counts, const Bytes& octets, const std::string& what) {
        const fuzz::Comparison comparison = m_compare(octets);
        ++counts[static_cast<std::size_t>(comparison.outcome)];
        if (!m_options.told.empty() && std::string(fuzz::textOf(comparison.outcome)).find(m_options.told) == 0) {
            std::cerr << comparison.detail << '\n' << norvauthority::toHex(octets) << "\n\n";
        }
        if (comparison.outcome == Outcome::unexplained && ++m_findings <= m_options.mostFindings) {
            std::cerr << m_name << ", " << what << ": " << comparison.detail << '\n'
                      << norvauthority::toHex(octets) << "\n\n";
        }
    }

    void print() const {
        std::printf("\n%s\n%-80s %8s %8s %8s\n", m_name, "", "whole", "cut", "changed");
        for (std::size_t i = 0; i < fuzz::outcomes; ++i) {
            if (m_seeds[i] + m_cuts[i] + m_changed[i] != 0) {
                const auto outcome = static_cast<Outcome>(i);
                const char* const side = fuzz::isStricter(outcome) ? "stricter: "
                                         : fuzz::isWider(outcome)  ? "wider: "
                                                                   : "";
                std::printf("%-80s %8zu %8zu %8zu\n", (std::string(side) + fuzz::textOf(outcome)).c_str(), m_seeds[i],
                            m_cuts[i], m_changed[i]);
            }
        }
        std::fflush(stdout);
    }

    const char* m_name;
    fuzz::Comparison (*m_compare)(const Bytes&);
    const Options& m_options;
    fuzz::Counts m_seeds{};
    fuzz::Counts m_cuts{};
    fuzz::Counts m_changed{};
    std::size_t m_findings = 0;
};

int run(int argc, char** argv) {
    Options options;
    CLI::App app("Compares the readers of CMS with OpenSSL");
    app.add_option("--count", options.count, "changed messages for each reader");
    app.add_option("--seed", options.number, "where the changes begin");
    app.add_option("--cuts", options.cutStep, "every which octet messages are cut at")->check(CLI::PositiveNumber);
    app.add_option("--findings", options.mostFindings, "how many are printed before it stops");
    app.add_option("--seconds", options.seconds, "for how long messages are changed at most; 0: until all are");
    app.add_option("--input", options.input, "one message in hexadecimal digits instead");
    app.add_option("--reader", options.reader, "\"envelope\" or \"signed\": that one alone");
    app.add_option("--tell", options.told, "also prints messages that differ in what begins so");
    app.add_option("--write", options.folder, "a folder that the messages are written to, unchanged, instead");
    CLI11_PARSE(app, argc, argv);
    Norvane::Crypto::initialize();
    Norvane::Logger::instance(false).sink(std::make_shared<Silence>());
    if (!options.input.empty()) {
        const Bytes octets = norvauthority::fromHex(options.input);
        for (auto* const compare : {fuzz::compareEnvelope, fuzz::compareSigned}) {
            const fuzz::Comparison comparison = compare(octets);
            std::cout << fuzz::textOf(comparison.outcome) << '\n' << comparison.detail << '\n';
        }
        return EXIT_SUCCESS;
    }
    if (!options.folder.empty()) {
        for (const auto* const seeds : {&fuzz::envelopeSeeds(), &fuzz::signedSeeds()}) {
            for (const fuzz::Seed& seed : *seeds) {
                std::ofstream(options.folder + "/" + seed.first, std::ios::binary)
                    .write(reinterpret_cast<const char*>(seed.second.data()),
                           static_cast<std::streamsize>(seed.second.size()));
            }
        }
        return EXIT_SUCCESS;
    }
    const bool envelopes = options.reader == "signed" ||
                           Comparing("EnvelopeReader", fuzz::compareEnvelope, options).run(fuzz::envelopeSeeds());
    const bool messages = options.reader == "envelope" ||
                          Comparing("SignedReader", fuzz::compareSigned, options).run(fuzz::signedSeeds());
    return envelopes && messages ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 2;
    }
}
