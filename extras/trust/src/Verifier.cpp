#include <norvcrypto-trust/Trust.h>

#include "Cache.h"
#include "Candidates.h"
#include "Ways.h"

#include <norvcmsg/Exception.h>

#include <algorithm>
#include <new>
#include <unordered_set>
#include <utility>

namespace Norvane::Crypto::Trust {

namespace {

using detail::Candidates;
using detail::Fingerprint;
using detail::Owned;
using detail::Snapshot;
using NVX509::RefCertificate;
using NVX509::RefCertificateRevocationList;

/// RFC 5280, 4.1.2.5: what has no end that is known.
constexpr std::time_t endOfTime = 253402300799;
constexpr std::time_t beginningOfTime = -62167219200; // the year 0

/// Numbers with dots between them: OpenSSL takes a number that is missing for zero.
bool isDotted(const std::string& text) {
    constexpr std::size_t longest = 256;
    return !text.empty() && text.size() <= longest && text.find_first_not_of("0123456789.") == std::string::npos &&
           text.find("..") == std::string::npos && !text.ends_with('.');
}

std::vector<Owned<ASN1_OBJECT>> policiesOf(const Options& options) {
    const detail::QuietQuestion quiet;
    std::vector<Owned<ASN1_OBJECT>> policies;
    for (const std::string& text : options.policies) {
        Owned<ASN1_OBJECT> policy(isDotted(text) ? OBJ_txt2obj(text.c_str(), 1) : nullptr);
        if (!policy) {
            throw Exception("Trust::Verifier", 4, "Trust", __LINE__)
                .stringParameter("not an object identifier: " + detail::shown(text));
        }
        policies.push_back(std::move(policy));
    }
    return policies;
}

/// Everything that a verdict depends on but the time.
class Key {
public:
    void add(std::uint64_t number) { m_bytes.append(reinterpret_cast<const char*>(&number), sizeof number); }
    void add(const Fingerprint& print) { m_bytes.append(reinterpret_cast<const char*>(print.data()), print.size()); }
    void add(const std::string& text) {
        add(text.size());
        m_bytes += text;
    }
    /// What comes in any order.
    void add(std::vector<Fingerprint> prints) {
        std::sort(prints.begin(), prints.end());
        add(prints.size());
        for (const Fingerprint& one : prints) {
            add(one);
        }
    }
    [[nodiscard]] Fingerprint print() const { return detail::fingerprintOf(m_bytes); }

private:
    std::string m_bytes;
};

void addOptions(Key& key, const Options& options) {
    for (const int one : {static_cast<int>(options.purpose), static_cast<int>(options.revocation),
                          options.partialChain ? 1 : 0, options.at ? 1 : 0}) {
        key.add(static_cast<std::uint64_t>(one));
    }
    for (const unsigned int one :
         {options.minimumRsaBits, options.minimumEcBits, options.minimumDigestBits, options.maximumDepth}) {
        key.add(std::uint64_t{one});
    }
    key.add(static_cast<std::uint64_t>(options.at.value_or(0)));
    key.add(options.policies.size());
    for (const std::string& policy : options.policies) {
        key.add(policy);
    }
}

detail::Question questionOf(const Snapshot& snapshot, const RefCertificate& certificate, const Candidates& candidates,
                            const std::list<RefCertificateRevocationList>& lists, const Options& options) {
    const detail::QuietQuestion quiet;
    Key key;
    key.add(snapshot.number);
    key.add(detail::fingerprintOf(static_cast<const X509*>(certificate)));
    // In their order, which OpenSSL chooses by.
    for (const auto* group : {&candidates.fromMessage, &candidates.tooLarge}) {
        key.add(group->size());
        for (const X509* one : *group) {
            key.add(detail::fingerprintOf(one));
        }
    }
    key.add(candidates.given > maximumCandidates || candidates.crowded ? candidates.given : 0);
    std::vector<Fingerprint> prints;
    std::size_t count = 0;
    for (const RefCertificateRevocationList& one : lists) {
        const X509_CRL* const list = one;
        if (options.revocation != Revocation::none && list != nullptr && count++ <= maximumMessageLists) {
            prints.push_back(detail::fingerprintOf(list));
        }
    }
    key.add(std::move(prints));
    addOptions(key, options);
    return {snapshot.number, key.print()};
}

/// About what a verdict keeps from being freed: what the snapshot holds goes with it. Reasons may be about certificates that are not
/// in the chain, of any size.
std::size_t sizeOf(const Verdict& verdict, const Snapshot& snapshot) {
    constexpr std::size_t octetsDecoded = 8; // about what OpenSSL and the handle take for each octet of an encoding
    std::size_t size = sizeof(Verdict);
    std::unordered_set<const X509*> counted;
    const auto encoded = [&size](int length) { size += static_cast<std::size_t>(std::max(length, 0)) * octetsDecoded; };
    const auto count = [&](const X509* certificate) {
        if (snapshot.certificateOf.count(certificate) == 0 && counted.insert(certificate).second) {
            encoded(i2d_X509(certificate, nullptr));
        }
    };
    for (const auto* reasons : {&verdict.reasons, &verdict.notes}) {
        for (const Reason& one : *reasons) {
            size += sizeof(Reason) + one.text.size() + one.advice.size();
            count(one.certificate);
        }
    }
    for (const Link& link : verdict.links) {
        size += sizeof(Link);
        count(link.certificate);
        for (const X509_CRL* const list : link.lists) {
            encoded(snapshot.listOf.count(list) > 0 ? 0 : i2d_X509_CRL(list, nullptr));
        }
    }
    return size;
}

/// The first moment after `at` at which something begins or ends.
class NextChange {
public:
    explicit NextChange(std::time_t at) : m_at(at) {}
    void see(const ASN1_TIME* time) {
        const auto seconds = detail::secondsOf(time);
        if (seconds && *seconds > m_at) {
            m_next = std::min(m_next, *seconds);
        }
    }
    void see(const X509* certificate) {
        see(X509_get0_notBefore(certificate));
        see(X509_get0_notAfter(certificate));
    }
    void see(const X509_CRL* list) {
        see(X509_CRL_get0_lastUpdate(list));
        see(X509_CRL_get0_nextUpdate(list));
    }
    [[nodiscard]] std::time_t moment() const { return m_next; }

private:
    std::time_t m_at;
    std::time_t m_next = endOfTime;
};

Verdict withoutCertificate(std::time_t at) {
    Verdict verdict;
    verdict.judgedAt = at;
    verdict.validUntil = std::max(endOfTime, at + 1);
    verdict.reasons.push_back(detail::worded(ReasonCode::certificateMissing, {}));
    return verdict;
}

/// Judges anew.
Verdict reached(const Snapshot& snapshot, const RefCertificate& certificate, Candidates& candidates,
                const std::list<RefCertificateRevocationList>& lists, const Options& options, std::time_t at) {
    static const std::list<RefCertificateRevocationList> noLists;
    const auto& wanted = options.revocation == Revocation::none ? noLists : lists;
    detail::Request request{certificate, {},      candidates.tooLarge, candidates.handles,
                            wanted,      options, policiesOf(options), at};
    std::copy_if(candidates.known.begin(), candidates.known.end(), std::back_inserter(request.candidates),
                 [&](const X509* one) { return snapshot.anchorSet.count(one) == 0; });
    request.candidates.insert(request.candidates.end(), candidates.fromMessage.begin(), candidates.fromMessage.end());
    auto [verdict, used] = detail::judgedByAnyWay(snapshot, std::move(request));
    if (candidates.given > maximumCandidates || candidates.crowded) {
        detail::Details details;
        details.what = std::to_string(candidates.given);
        verdict.notes.push_back(detail::worded(ReasonCode::tooManyCertificates, details));
    }
    NextChange next(at);
    next.see(static_cast<const X509*>(certificate));
    for (const auto* group : {&candidates.known, &candidates.fromMessage}) {
        for (const X509* one : *group) {
            next.see(one);
        }
    }
    for (const RefCertificate& one : verdict.chain) { // OpenSSL finds anchors that are among neither
        next.see(static_cast<const X509*>(one));
    }
    for (const X509_CRL* list : used) {
        next.see(list);
    }
    verdict.validUntil = std::max(next.moment(), at + 1);
    // cppcheck-suppress returnStdMoveLocal ; a part of a pair, which would be copied
    return std::move(verdict);
}

bool isSame(const Reason& one, const Reason& other) {
    return one.code == other.code && one.depth == other.depth && one.text == other.text;
}

/// Whether OpenSSL may write it in a form that it does not decode: universal tag 0, constructed and empty, it writes as the two
/// octets that end what has no length.
bool isWrittenAsItsEnd(const X509* certificate) {
    const X509_ALGOR* algorithm = nullptr;
    X509_get0_signature(nullptr, &algorithm, certificate);
    int parameters = V_ASN1_UNDEF;
    X509_ALGOR_get0(nullptr, &parameters, nullptr, algorithm);
    return parameters == V_ASN1_EOC;
}

/// Decoded anew, but for what the snapshot holds, which is known by its address, and what cannot be.
RefCertificate copyOf(X509* certificate, const RefCertificate& handle, const Snapshot& snapshot) {
    if (snapshot.certificateOf.count(certificate) > 0 || isWrittenAsItsEnd(certificate)) {
        return handle;
    }
    X509* const copy = X509_dup(certificate);
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    return NVX509::CertificateFactory()(copy, true);
}

/// Judges anew; a refusal is reached twice, the second time over certificates decoded once more. What OpenSSL has no memory for
/// it calls wrong, often without an error that says so, and remembers some of it with the certificate; and a refusal is kept.
Verdict confirmed(const Snapshot& snapshot, const RefCertificate& certificate, Candidates& candidates,
                  const std::list<RefCertificateRevocationList>& lists, const Options& options, std::time_t at) {
    Verdict verdict = reached(snapshot, certificate, candidates, lists, options, at);
    if (verdict.accepted) {
        return verdict;
    }
    const RefCertificate copy = copyOf(certificate, certificate, snapshot);
    std::list<RefCertificate> copies;
    for (const auto* group : {&candidates.fromMessage, &candidates.tooLarge}) {
        for (X509* one : *group) {
            // The judged one may be in the message, too, and is one certificate then.
            copies.push_back(
                one == static_cast<X509*>(certificate) ? copy : copyOf(one, candidates.handles.at(one), snapshot));
        }
    }
    Candidates anew = detail::candidatesFor(copy, copies, snapshot, options.revocation != Revocation::none);
    const Verdict again = reached(snapshot, copy, anew, lists, options, at);
    if (!std::equal(verdict.reasons.begin(), verdict.reasons.end(), again.reasons.begin(), again.reasons.end(),
                    isSame)) {
        throw std::bad_alloc();
    }
    return verdict;
}

std::shared_ptr<const Snapshot> emptySnapshot() {
    static const auto empty = std::make_shared<const Snapshot>(std::vector<detail::Source>());
    return empty;
}

} // namespace

Verifier::Verifier(std::shared_ptr<const Material> material, const Options& defaults, const CacheLimits& limits)
    : m_material(std::move(material)),
      m_defaults(defaults),
      m_cache(std::make_unique<detail::Cache>(limits)) {}

Verifier::~Verifier() = default;

Verdict Verifier::judge(const RefCertificate& certificate, const std::list<RefCertificate>& fromMessage,
                        const std::list<RefCertificateRevocationList>& listsFromMessage, const Options& options) const {
    const std::time_t at = std::clamp(options.at ? *options.at : std::time(nullptr), beginningOfTime, endOfTime);
    if (static_cast<x509_st*>(certificate) == nullptr) {
        return withoutCertificate(at);
    }
    const auto snapshot = m_material ? m_material->snapshot() : emptySnapshot();
    Candidates candidates =
        detail::candidatesFor(certificate, fromMessage, *snapshot, options.revocation != Revocation::none);
    const detail::Question question = questionOf(*snapshot, certificate, candidates, listsFromMessage, options);
    if (const auto known = m_cache->find(question, at)) {
        Verdict verdict = *known;
        verdict.judgedAt = at;
        return verdict;
    }
    auto verdict =
        std::make_shared<Verdict>(confirmed(*snapshot, certificate, candidates, listsFromMessage, options, at));
    const std::time_t latest =
        options.at ? verdict->validUntil : at + static_cast<std::time_t>(m_cache->limits().seconds);
    m_cache->keep(question, at, std::min(verdict->validUntil, latest), sizeOf(*verdict, *snapshot), verdict);
    return *verdict;
}

Verdict Verifier::judge(const RefCertificate& certificate) const {
    return judge(certificate, {}, {}, m_defaults);
}

bool Verifier::isValid(const RefCertificate& certificate, int purpose, bool online) {
    Options options = m_defaults;
    switch (purpose) {
    case static_cast<int>(Purpose::any):
    case static_cast<int>(Purpose::sign):
    case static_cast<int>(Purpose::encrypt):
    case static_cast<int>(Purpose::authority):
        options.purpose = static_cast<Purpose>(purpose);
        break;
    default:
        return false;
    }
    if (online) {
        options.revocation = Revocation::required;
    }
    return judge(certificate, {}, {}, options).accepted;
}

CacheCounts Verifier::cacheCounts() const {
    return m_cache->counts();
}

} // namespace Norvane::Crypto::Trust
