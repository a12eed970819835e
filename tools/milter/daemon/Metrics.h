#pragma once

/// \file
/// What is counted, in the text format of Prometheus.
///
/// \code
/// metrics.message({.direction = "incoming", .outcome = "change", .verdict = "pass", .seconds = 0.02, .octets = 4096});
/// std::cout << metrics.text();
/// \endcode
///
/// Everything may be called from any number of threads at once. The labels are of fixed sets: what is in none of them counts as
/// "other", so that nobody who sends mails can make series.

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace norvmilter {

/// One message that was answered.
struct MessageCount {
    std::string direction; ///< incoming, outgoing, ignore
    std::string outcome;   ///< pass, change, reject, tempfail, discard
    std::string verdict;   ///< none, pass, fail, policy, neutral, temperror, permerror; empty: not judged
    double seconds = 0;    ///< from its last octet to the answer
    std::uint64_t octets = 0;
    bool spilled = false;
    std::uint64_t submitted = 0; ///< messages handed over beside it
};

class Metrics {
public:
    /// \param restarts how often a worker had to be started anew
    explicit Metrics(unsigned long restarts = 0);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    void message(const MessageCount& count);
    /// Given up by the MTA or its client before it was judged.
    void aborted();
    void connected();
    void disconnected();
    /// Turned away: one too many, or while stopping.
    void refused();
    void inHand(int change);
    void submissionFailed();
    void reloaded(bool good);
    /// When store and trust were read from the disk.
    void loadedAt(std::time_t when);

    [[nodiscard]] std::string text() const;

private:
    struct Families;
    std::unique_ptr<Families> m_families;
};

} // namespace norvmilter
