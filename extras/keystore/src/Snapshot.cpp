#include "Snapshot.h"

#include "Names.h"

#include <norvcmsg/Strings.h>

#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <functional>
#include <tuple>
#include <utility>

namespace Norvane::Crypto::NVX509::keystore {

namespace {

constexpr const char* wildcards = "*?";

/// Where a text's domain begins, which is compared without regard to case: after its last "@", or at its end.
std::size_t domainOf(const std::string& text) {
    const auto at = text.rfind('@');
    return at == std::string::npos ? text.size() : at + 1;
}

/// The same text for all that `StringPattern` takes for equal. The two kinds of keys differ in their first byte.
std::string wholeKey(const std::string& text) {
    std::string domain = text.substr(domainOf(text));
    return "=" + text.substr(0, domainOf(text)) + stringToUpperNoCopy(domain);
}

std::string domainKey(const std::string& text) {
    std::string domain = text.substr(domainOf(text));
    return "@" + stringToUpperNoCopy(domain);
}

/// Under what a pattern is filed. One that ends in "@" and a domain without wildcards only matches in that domain.
std::string keyOf(const std::string& pattern) {
    if (pattern.find_first_of(wildcards) == std::string::npos) {
        return wholeKey(pattern);
    }
    const auto domain = domainOf(pattern);
    const bool anyDomain = domain == pattern.size() || pattern.find_first_of(wildcards, domain) != std::string::npos;
    return anyDomain ? std::string() : domainKey(pattern);
}

std::size_t hashOf(const std::string& text) {
    return std::hash<std::string>()(text);
}

bool isValidAt(const Entry::Leaf& leaf, std::time_t now) {
    return now >= leaf.validFrom && now < leaf.validUntil;
}

/// What an identity can be taken for while its certificate is valid.
std::array<Fitness, 3> fitnessOf(const Entry::Leaf& leaf, bool hasKey) {
    auto fitness = leaf.fitness;
    if (!hasKey) {
        fitness.at(static_cast<std::size_t>(Purpose::signing)) = Fitness::noKey;
        fitness.at(static_cast<std::size_t>(Purpose::decryption)) = Fitness::noKey;
    }
    return fitness;
}

} // namespace

Snapshot::Snapshot(const std::string& directory, const Snapshot* before, DirectoryKeyStore::Reading reading)
    : m_store(openStore(directory)) {
    const auto names = foldersOf(m_store);
    m_entries.reserve(names.size());
    auto known = before == nullptr ? m_entries.cend() : before->m_entries.cbegin();
    const auto end = before == nullptr ? m_entries.cend() : before->m_entries.cend();
    for (const auto& name : names) {
        while (known != end && (*known)->name() < name) {
            ++known;
        }
        const bool isKnown = known != end && (*known)->name() == name;
        m_entries.push_back(isKnown ? Entry::listAgain(*known, m_store) : Entry::list(m_store, name));
        if (reading == DirectoryKeyStore::Reading::ahead) {
            readAhead(m_entries.back());
        }
    }
    indexPatterns();
}

/// A folder that changes while it is read is listed anew, and left as it was listed when it goes on changing.
void Snapshot::readAhead(std::shared_ptr<Entry>& entry) {
    constexpr int mostAttempts = 3;
    for (int attempt = 0; attempt < mostAttempts && !entry->refusal(); ++attempt) {
        try {
            static_cast<void>(entry->holding(m_store, Asker::lookUp));
            return;
        } catch (const Changed&) {
            entry = Entry::list(m_store, entry->name());
        }
    }
}

void Snapshot::indexPatterns() {
    for (std::size_t entry = 0; entry < m_entries.size(); ++entry) {
        for (std::size_t owner = 0; owner < m_entries[entry]->owners().size(); ++owner) {
            m_precedence.push_back({entry, owner});
        }
    }
    std::vector<std::tuple<std::int64_t, std::size_t, std::size_t>> order; // in which less comes first
    order.reserve(m_precedence.size());
    for (const auto& place : m_precedence) {
        order.emplace_back(-static_cast<std::int64_t>(patternAt(place).literalLength()), place.owner, place.entry);
    }
    std::sort(order.begin(), order.end());
    m_byText.reserve(order.size());
    for (std::size_t rank = 0; rank < order.size(); ++rank) {
        m_precedence[rank] = {.entry = std::get<2>(order[rank]), .owner = std::get<1>(order[rank])};
        m_byText.emplace_back(hashOf(keyOf(patternAt(m_precedence[rank]).text())), rank);
    }
    std::sort(m_byText.begin(), m_byText.end());
}

const StringPattern& Snapshot::patternAt(const Place& place) const {
    return m_entries[place.entry]->owners()[place.owner].pattern;
}

template <class Visit> void Snapshot::eachMatch(const std::string& address, Visit visit) const {
    using At = decltype(m_byText)::const_iterator;
    const std::array hashes = {hashOf(wholeKey(address)), hashOf(domainKey(address)), hashOf(std::string())};
    std::array<At, 3> heads{};
    for (std::size_t i = 0; i < heads.size(); ++i) {
        const auto* const before = std::find(hashes.begin(), hashes.end(), hashes.at(i));
        heads.at(i) = before != &hashes.at(i) // two texts of one hash: each pattern is tried once
                          ? m_byText.end()
                          : std::lower_bound(m_byText.begin(), m_byText.end(), std::pair(hashes.at(i), std::size_t{0}));
    }
    for (;;) {
        std::size_t next = heads.size();
        for (std::size_t i = 0; i < heads.size(); ++i) {
            const At at = heads.at(i);
            if (at != m_byText.end() && at->first == hashes.at(i) &&
                (next == heads.size() || at->second < heads.at(next)->second)) {
                next = i;
            }
        }
        if (next == heads.size()) {
            return;
        }
        const std::size_t rank = (heads.at(next)++)->second;
        if (patternAt(m_precedence[rank]).matches(address) && visit(rank)) {
            return;
        }
    }
}

std::optional<Snapshot::Hit> Snapshot::find(const EmailAddress& address, Purpose purpose) const {
    const std::time_t now = std::time(nullptr);
    std::optional<Hit> best;
    eachMatch(address.address(), [&](std::size_t rank) {
        Entry& entry = *m_entries[m_precedence[rank].entry];
        Hit hit{&entry, entry.leaf(m_store, Asker::lookUp)};
        if (hit.leaf->certificate.isNull() || hit.leaf->fitness.at(static_cast<std::size_t>(purpose)) != Fitness::fit) {
            return false;
        }
        hit.isValid = isValidAt(*hit.leaf, now);
        if (!hit.isValid && best) {
            return false;
        }
        if (purpose != Purpose::encryption) { // a key takes the longest to read, and is asked for last
            hit.holding = entry.holding(m_store, Asker::lookUp);
            if (!hit.holding->hasKey) {
                return false;
            }
        }
        best = std::move(hit);
        return best->isValid;
    });
    return best;
}

std::shared_ptr<const Snapshot::NameIndex> Snapshot::nameIndex() const {
    const Synchronized lock(m_indexing);
    if (m_nameIndex) {
        return m_nameIndex;
    }
    auto made = std::make_shared<NameIndex>();
    IssuerHashes hashes;
    for (std::size_t entry = 0; entry < m_entries.size(); ++entry) {
        if (m_entries[entry]->refusal()) {
            continue;
        }
        if (const auto names = m_entries[entry]->names(m_store, hashes)) {
            made->byIssuerAndSerial[names->issuerAndSerial].push_back(entry);
            if (!names->keyIdentifier.empty()) {
                made->byKeyIdentifier[names->keyIdentifier].push_back(entry);
            }
        }
    }
    return m_nameIndex = made;
}

template <class HasName> std::optional<Snapshot::Hit> Snapshot::firstWithKey(const Index& index,
                                                                             const std::string& name,
                                                                             HasName hasName) const {
    const auto filed = index.find(name);
    if (filed == index.end()) {
        return std::nullopt;
    }
    for (const std::size_t at : filed->second) {
        Entry& entry = *m_entries[at];
        Hit hit{&entry, entry.leaf(m_store, Asker::lookUp)};
        if (hit.leaf->certificate.isNull() || !hasName(static_cast<X509*>(hit.leaf->certificate))) {
            continue;
        }
        hit.holding = entry.holding(m_store, Asker::lookUp);
        if (hit.holding->hasKey) {
            hit.isValid = isValidAt(*hit.leaf, std::time(nullptr));
            return hit;
        }
    }
    return std::nullopt;
}

std::optional<Snapshot::Hit> Snapshot::find(const DistinguishedName& issuer, const ASN1::Integer& serial) const {
    const auto name = issuerAndSerial(issuer.object(), serial.object());
    if (!name) {
        return std::nullopt;
    }
    return firstWithKey(nameIndex()->byIssuerAndSerial, *name, [&](X509* certificate) {
        return ASN1_INTEGER_cmp(X509_get0_serialNumber(certificate), serial.object()) == 0 &&
               X509_NAME_cmp(X509_get_issuer_name(certificate), issuer.object()) == 0;
    });
}

std::optional<Snapshot::Hit> Snapshot::findKeyIdentifier(const Buffer& keyIdentifier) const {
    const std::string name(reinterpret_cast<const char*>(keyIdentifier.data()), keyIdentifier.length());
    return firstWithKey(nameIndex()->byKeyIdentifier, name, [&](X509* certificate) {
        const ASN1_OCTET_STRING* own = X509_get0_subject_key_id(certificate);
        return own != nullptr && name == std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(own)),
                                                     static_cast<std::size_t>(ASN1_STRING_length(own)));
    });
}

class Snapshot::Survey {
public:
    explicit Survey(const Snapshot& snapshot) : m_snapshot(snapshot) {}

    /// Takes up an entry; those that matter come in their order.
    void add(std::size_t at) {
        Entry& entry = *m_snapshot.m_entries[at];
        if (entry.refusal()) {
            m_contents->problems.push_back(*entry.refusal());
            return;
        }
        const auto leaf = entry.leaf(m_snapshot.m_store, Asker::survey);
        take(leaf->problems);
        if (leaf->certificate.isNull()) {
            return;
        }
        const auto holding = entry.holding(m_snapshot.m_store, Asker::survey);
        take(holding->problems);
        take(entry.ownersRefusal());
        take(leaf->onlyByName);
        m_identities.emplace(at, m_contents->identities.size());
        m_leaves.push_back(leaf);
        m_contents->identities.push_back({entry.name(), leaf->certificate, holding->pair->chain, holding->hasKey,
                                          fitnessOf(*leaf, holding->hasKey), entry.owners()});
    }
    /// Takes up what was found wrong when an entry was listed, and nothing else of it.
    void addListed(std::size_t at) {
        take(m_snapshot.m_entries[at]->refusal());
        take(m_snapshot.m_entries[at]->ownersRefusal());
    }
    /// The place of a pattern of an entry that was taken up; nothing for one that is not used.
    std::optional<DirectoryKeyStore::Place> addPattern(const Place& place) {
        const auto identity = m_identities.find(place.entry);
        if (identity == m_identities.end()) {
            return std::nullopt;
        }
        m_contents->precedence.push_back({identity->second, place.owner});
        return m_contents->precedence.back();
    }
    [[nodiscard]] Fitness fitnessOf(std::size_t identity, Purpose purpose, std::time_t now) const {
        const Fitness whileValid = m_contents->identities[identity].fitness.at(static_cast<std::size_t>(purpose));
        return whileValid == Fitness::fit && !isValidAt(*m_leaves[identity], now) ? Fitness::outOfValidity : whileValid;
    }
    [[nodiscard]] std::shared_ptr<const DirectoryKeyStore::Contents> contents() const { return m_contents; }

private:
    static std::array<Fitness, 3> fitnessOf(const Entry::Leaf& leaf, bool hasKey) {
        return keystore::fitnessOf(leaf, hasKey);
    }
    void take(const std::vector<Problem>& problems) {
        m_contents->problems.insert(m_contents->problems.end(), problems.begin(), problems.end());
    }
    void take(const std::optional<Problem>& problem) {
        if (problem) {
            m_contents->problems.push_back(*problem);
        }
    }

    const Snapshot& m_snapshot;
    std::shared_ptr<DirectoryKeyStore::Contents> m_contents = std::make_shared<DirectoryKeyStore::Contents>();
    std::vector<std::shared_ptr<const Entry::Leaf>> m_leaves;
    std::unordered_map<std::size_t, std::size_t> m_identities; ///< by entry
};

std::shared_ptr<const DirectoryKeyStore::Contents> Snapshot::contents() const {
    const Synchronized lock(m_surveying);
    if (!m_contents) {
        Survey survey(*this);
        for (std::size_t entry = 0; entry < m_entries.size(); ++entry) {
            survey.add(entry);
        }
        for (const auto& place : m_precedence) {
            static_cast<void>(survey.addPattern(place));
        }
        m_contents = survey.contents();
    }
    return m_contents;
}

std::list<RefCertificate> Snapshot::certificates() const {
    std::list<RefCertificate> own;
    std::list<RefCertificate> others;
    for (const auto& entry : m_entries) {
        if (entry->refusal()) {
            continue;
        }
        const auto leaf = entry->leaf(m_store, Asker::survey);
        if (!leaf->certificate.isNull()) {
            own.push_back(leaf->certificate);
            others.splice(others.end(), entry->chain(m_store));
        }
    }
    own.splice(own.end(), others);
    return own;
}

DirectoryKeyStore::Explanation Snapshot::explain(const EmailAddress& address, Purpose purpose) const {
    const std::time_t now = std::time(nullptr);
    std::vector<std::size_t> ranks;
    std::vector<bool> matched(m_entries.size());
    eachMatch(address.address(), [&](std::size_t rank) {
        ranks.push_back(rank);
        matched[m_precedence[rank].entry] = true;
        return false;
    });
    Survey survey(*this);
    for (std::size_t entry = 0; entry < m_entries.size(); ++entry) {
        matched[entry] ? survey.add(entry) : survey.addListed(entry);
    }
    DirectoryKeyStore::Explanation explanation{survey.contents(), {}, std::nullopt};
    auto& matches = explanation.matches;
    for (const std::size_t rank : ranks) {
        if (const auto place = survey.addPattern(m_precedence[rank])) {
            matches.push_back({*place, survey.fitnessOf(place->identity, purpose, now)});
        }
    }
    for (const auto wanted : {Fitness::fit, Fitness::outOfValidity}) {
        const auto first = std::find_if(matches.begin(), matches.end(),
                                        [wanted](const auto& match) { return match.fitness == wanted; });
        if (first != matches.end()) {
            explanation.winner = static_cast<std::size_t>(first - matches.begin());
            break;
        }
    }
    return explanation;
}

} // namespace Norvane::Crypto::NVX509::keystore
