#pragma once

/// \file
/// Verdicts that were reached, as long as they hold.

#include "OpenSsl.h"

#include <norvcrypto-trust/Trust.h>

#include <norvcmsg/Mutex.h>

#include <list>
#include <map>
#include <memory>
#include <optional>

namespace Norvane::Crypto::Trust::detail {

/// What a verdict depends on but the time.
struct Question {
    std::uint64_t snapshot;
    Fingerprint print;
};

/// Any number of threads may use it at once. Verdicts of earlier snapshots go when a later one is asked about: nobody can ask
/// for them any more, and they keep what was loaded then.
class Cache {
public:
    explicit Cache(const CacheLimits& limits) : m_limits(limits) {}

    /// A verdict that holds at a moment; null when there is none.
    std::shared_ptr<const Verdict> find(const Question& question, std::time_t at);
    /// \param until the first moment at which the verdict is not to be given again
    /// \param bytes how much it keeps from being freed, about
    void keep(const Question& question, std::time_t from, std::time_t until, std::size_t bytes,
              std::shared_ptr<const Verdict> verdict);
    [[nodiscard]] CacheCounts counts() const;
    [[nodiscard]] const CacheLimits& limits() const noexcept { return m_limits; }

private:
    struct Entry {
        Fingerprint key;
        std::time_t from, until;
        std::size_t bytes;
        std::shared_ptr<const Verdict> verdict;
    };
    using Entries = std::list<Entry>; // the last used first

    CacheLimits m_limits;
    mutable Mutex m_mutex; // guards what follows
    Entries m_entries;
    std::map<Fingerprint, Entries::iterator> m_byKey;
    CacheCounts m_counts;
    std::uint64_t m_snapshot = 0; // the latest that was asked about
};

} // namespace Norvane::Crypto::Trust::detail
