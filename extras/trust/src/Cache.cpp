#include "Cache.h"

#include <iterator>
#include <utility>

namespace Norvane::Crypto::Trust::detail {

namespace {

/// About what OpenSSL and the handle take for each octet of an encoding.
constexpr std::size_t octetsDecoded = 8;

std::size_t sizeOf(const NVX509::RefCertificate& certificate) {
    const X509* const x509 = certificate;
    const int length = x509 == nullptr ? 0 : i2d_X509(x509, nullptr);
    return length < 0 ? 0 : static_cast<std::size_t>(length) * octetsDecoded;
}

std::size_t sizeOf(const std::vector<Reason>& reasons) {
    std::size_t size = 0;
    for (const Reason& one : reasons) {
        size += sizeof(Reason) + one.text.size() + one.advice.size();
    }
    return size;
}

std::size_t sizeOf(const NVX509::RefCertificateRevocationList& list) {
    const int length = i2d_X509_CRL(list, nullptr);
    return length < 0 ? 0 : static_cast<std::size_t>(length) * octetsDecoded;
}

/// What an entry keeps from being freed, about; what the snapshot holds anyway is counted, too.
std::size_t sizeOf(const Verdict& verdict) {
    std::size_t size = sizeof(Verdict) + sizeOf(verdict.reasons) + sizeOf(verdict.notes);
    for (const Link& link : verdict.links) {
        size += sizeof(Link) + sizeOf(link.certificate);
        for (const auto& list : link.lists) {
            size += sizeOf(list);
        }
    }
    return size;
}

} // namespace

std::shared_ptr<const Verdict> Cache::find(const Fingerprint& key, std::time_t at) {
    const Synchronized lock(m_mutex);
    const auto found = m_byKey.find(key);
    if (found == m_byKey.end() || at < found->second->from || at >= found->second->until) {
        ++m_counts.misses;
        return nullptr;
    }
    ++m_counts.hits;
    m_entries.splice(m_entries.begin(), m_entries, found->second);
    return found->second->verdict;
}

void Cache::keep(const Fingerprint& key, std::time_t from, std::time_t until, std::shared_ptr<const Verdict> verdict) {
    Entry entry{key, from, until, sizeOf(*verdict), std::move(verdict)};
    Entries forgotten; // freed without the lock
    const Synchronized lock(m_mutex);
    if (m_limits.entries == 0 || entry.bytes > m_limits.bytes || until <= from) {
        return;
    }
    const auto forget = [&](Entries::iterator one) {
        m_counts.bytes -= one->bytes;
        m_byKey.erase(one->key);
        forgotten.splice(forgotten.end(), m_entries, one);
    };
    if (const auto known = m_byKey.find(key); known != m_byKey.end()) {
        forget(known->second);
    }
    while (m_entries.size() >= m_limits.entries || m_counts.bytes + entry.bytes > m_limits.bytes) {
        forget(std::prev(m_entries.end()));
    }
    m_counts.bytes += entry.bytes;
    m_entries.push_front(std::move(entry));
    m_byKey.emplace(key, m_entries.begin());
}

CacheCounts Cache::counts() const {
    const Synchronized lock(m_mutex);
    CacheCounts counts = m_counts;
    counts.entries = m_entries.size();
    return counts;
}

} // namespace Norvane::Crypto::Trust::detail
