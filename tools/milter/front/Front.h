#pragma once

/// \file
/// What all connections share: who judges messages, what is in hand, and whether new messages are taken.

#include "daemon/Log.h"
#include "daemon/Metrics.h"
#include "front/Agreements.h"
#include "front/Progress.h"
#include "message/Message.h"
#include "message/Outcome.h"
#include "message/Temporary.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace norvmilter {

/// How much is taken from the MTA.
struct FrontLimits {
    std::string spool;                      ///< the folder for bodies; empty: the system's
    std::uint64_t messageBytes = 104857600; ///< of header and body; 0: no limit
    std::size_t headerBytes = 1048576;      ///< of all fields: they are kept in memory
    std::size_t headerFields = 10000;
    std::size_t recipients = 1000;
    std::size_t connections = 100;
    std::chrono::seconds perMessage{60}; ///< for judging one; 0: no limit
};

/// What one load of the configuration made. A message is finished by what was there when it began.
struct Generation {
    FrontLimits limits;
    std::function<Outcome(const Message&, const Deadline&)> judge;
    /// Hands over all, or throws `SubmissionFailure`.
    std::function<void(const std::vector<Submission>&)> submit;
};

/// Any number of threads may use one.
class Front {
public:
    using Clock = std::chrono::steady_clock;

    Front(Log& log, Metrics& metrics, std::shared_ptr<const Generation> generation,
          Clock::duration progress = std::chrono::seconds(10));

    [[nodiscard]] Log& log() const noexcept { return m_log; }
    [[nodiscard]] Metrics& metrics() const noexcept { return m_metrics; }
    [[nodiscard]] Progress& progress() noexcept { return m_progress; }
    [[nodiscard]] const Progress& progress() const noexcept { return m_progress; }
    [[nodiscard]] Agreements& agreements() noexcept { return m_agreements; }

    [[nodiscard]] std::shared_ptr<const Generation> generation() const;
    void use(std::shared_ptr<const Generation> generation);

    /// From now on connections and messages are answered with 421 and 451; those in hand are finished.
    void drain() noexcept { m_draining = true; }
    [[nodiscard]] bool isDraining() const noexcept { return m_draining; }
    /// Nothing is in hand, and the last answer has had the time to be sent.
    [[nodiscard]] bool isDrained() const noexcept;
    [[nodiscard]] std::size_t inHand() const noexcept { return m_inHand; }

    /// A connection is there, as long as the object is.
    class Connected {
    public:
        explicit Connected(Front& front);
        Connected(const Connected&) = delete;
        Connected& operator=(const Connected&) = delete;
        ~Connected();
        /// It is one of those that are allowed.
        [[nodiscard]] bool isWithinLimit() const noexcept { return m_isWithinLimit; }

    private:
        Front& m_front;
        bool m_isWithinLimit;
    };
    /// A message is in hand, as long as the object is.
    class InHand {
    public:
        explicit InHand(Front& front);
        InHand(const InHand&) = delete;
        InHand& operator=(const InHand&) = delete;
        ~InHand();

    private:
        Front& m_front;
    };

private:
    Log& m_log;
    Metrics& m_metrics;
    mutable std::mutex m_mutex;
    std::shared_ptr<const Generation> m_generation;
    std::atomic<bool> m_draining{false};
    std::atomic<std::size_t> m_inHand{0};
    std::atomic<std::size_t> m_connections{0};
    std::atomic<Clock::rep> m_lastAnswer{0};
    Agreements m_agreements;
    Progress m_progress;
};

} // namespace norvmilter
