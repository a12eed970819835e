#include "Cache.h"

#include <iterator>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

std::shared_ptr<const Verdict> Cache::find(const Question& question, std::time_t at) {
    Entries forgotten; // freed without the lock
    const Synchronized lock(m_mutex);
    if (question.snapshot > m_snapshot) {
        m_snapshot = question.snapshot;
        forgotten.swap(m_entries);
        m_byKey.clear();
        m_counts.bytes = 0;
    }
    const auto found = m_byKey.find(question.print);
    if (found == m_byKey.end() || at < found->second->from || at >= found->second->until) {
        ++m_counts.misses;
        return nullptr;
    }
    ++m_counts.hits;
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    return found->second->verdict;
}

void Cache::keep(const Question& question, std::time_t from, std::time_t until, std::size_t bytes,
                 std::shared_ptr<const Verdict> verdict) {
    Entries forgotten; // freed without the lock
    const Synchronized lock(m_mutex);
    if (m_limits.entries == 0 || bytes > m_limits.bytes || until <= from || question.snapshot < m_snapshot) {
        return;
    }
    const auto forget = [&](Entries::iterator one) {
        m_counts.bytes -= one->bytes;
        m_byKey.erase(one->key);
        forgotten.splice(forgotten.end(), m_entries, one);
    };
    if (const auto known = m_byKey.find(question.print); known != m_byKey.end()) {
        forget(known->second);
    }
    while (m_entries.size() >= m_limits.entries || m_counts.bytes + bytes > m_limits.bytes) {
        forget(std::prev(m_entries.end()));
    }
    m_counts.bytes += bytes;
    m_entries.push_front({question.print, from, until, bytes, std::move(verdict)});
    m_byKey.emplace(question.print, m_entries.begin());
}

CacheCounts Cache::counts() const {
    const Synchronized lock(m_mutex);
    CacheCounts counts = m_counts;
    counts.entries = m_entries.size();
    return counts;
}

} // namespace Norvane::Crypto::Trust::detail
