#include "Snapshot.h"

#include <norvcmsg/Strings.h>

#include <openssl/x509.h>

#include <algorithm>
#include <array>
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

/// An issuer and serial number in the order of the index.
struct Key {
    const ASN1::Integer& serial;
    const X509_NAME* issuer;

    bool operator<(const Key& other) const {
        if (serial < other.serial || other.serial < serial) {
            return serial < other.serial;
        }
        return X509_NAME_cmp(issuer, other.issuer) < 0;
    }
};

Key keyOf(const KeyCertificatePair& pair) {
    return {pair->certificate->serialNumber(), pair->certificate->issuer().object()};
}

} // namespace

void Snapshot::add(Identity identity, const Facts& facts) {
    if (identity.hasKey) {
        m_bySerial.push_back(identities.size());
    }
    for (std::size_t owner = 0; owner < identity.owners.size(); ++owner) {
        precedence.push_back({identities.size(), owner});
    }
    identities.push_back(std::move(identity));
    m_facts.push_back(facts);
}

void Snapshot::index() {
    std::stable_sort(m_bySerial.begin(), m_bySerial.end(), [this](std::size_t left, std::size_t right) {
        return keyOf(m_facts[left].pair) < keyOf(m_facts[right].pair);
    });
    std::vector<std::tuple<std::int64_t, std::size_t, std::size_t>> order; // in which less comes first
    order.reserve(precedence.size());
    for (const auto& place : precedence) {
        order.emplace_back(-static_cast<std::int64_t>(patternAt(place).literalLength()), place.owner, place.identity);
    }
    std::sort(order.begin(), order.end());
    for (std::size_t rank = 0; rank < order.size(); ++rank) {
        precedence[rank] = {.identity = std::get<2>(order[rank]), .owner = std::get<1>(order[rank])};
        m_byText[keyOf(patternAt(precedence[rank]).text())].push_back(rank);
    }
}

const StringPattern& Snapshot::patternAt(const DirectoryKeyStore::Place& place) const {
    return identities[place.identity].owners[place.owner].pattern;
}

template <class Visit> void Snapshot::eachMatch(const std::string& address, Visit visit) const {
    static const Ranks none;
    const auto filedUnder = [this](const std::string& key) -> const Ranks& {
        const auto found = m_byText.find(key);
        return found == m_byText.end() ? none : found->second;
    };
    const std::array<const Ranks*, 3> lists = {&filedUnder(wholeKey(address)), &filedUnder(domainKey(address)),
                                               &filedUnder(std::string())};
    std::array<std::size_t, 3> heads{};
    for (;;) {
        std::size_t next = lists.size();
        for (std::size_t i = 0; i < lists.size(); ++i) {
            if (heads[i] < lists[i]->size() &&
                (next == lists.size() || (*lists[i])[heads[i]] < (*lists[next])[heads[next]])) {
                next = i;
            }
        }
        if (next == lists.size()) {
            return;
        }
        const std::size_t rank = (*lists[next])[heads[next]++];
        if (patternAt(precedence[rank]).matches(address) && visit(rank)) {
            return;
        }
    }
}

Fitness Snapshot::fitnessOf(std::size_t identity, Purpose purpose, std::time_t now) const {
    const Facts& facts = m_facts[identity];
    const Fitness whileValid = identities[identity].fitness.at(static_cast<std::size_t>(purpose));
    if (whileValid != Fitness::fit) {
        return whileValid;
    }
    return now < facts.validFrom || now >= facts.validUntil ? Fitness::outOfValidity : Fitness::fit;
}

const Snapshot::Facts* Snapshot::find(const EmailAddress& address, Purpose purpose) const {
    const std::time_t now = std::time(nullptr);
    const Facts* best = nullptr;
    eachMatch(address.address(), [&](std::size_t rank) {
        const auto identity = precedence[rank].identity;
        const auto fitness = fitnessOf(identity, purpose, now);
        if (fitness == Fitness::fit || (fitness == Fitness::outOfValidity && best == nullptr)) {
            best = &m_facts[identity];
        }
        return fitness == Fitness::fit;
    });
    return best;
}

const Snapshot::Facts* Snapshot::find(const DistinguishedName& issuer, const ASN1::Integer& serial) const {
    if (issuer.isNull() || serial.object() == nullptr) {
        return nullptr;
    }
    const Key wanted{serial, issuer.object()};
    const auto found =
        std::lower_bound(m_bySerial.begin(), m_bySerial.end(), wanted,
                         [this](std::size_t identity, const Key& key) { return keyOf(m_facts[identity].pair) < key; });
    if (found == m_bySerial.end() || wanted < keyOf(m_facts[*found].pair)) {
        return nullptr;
    }
    return &m_facts[*found];
}

DirectoryKeyStore::Explanation Snapshot::explain(const EmailAddress& address, Purpose purpose) const {
    const std::time_t now = std::time(nullptr);
    DirectoryKeyStore::Explanation explanation{shared_from_this(), {}, std::nullopt};
    auto& matches = explanation.matches;
    eachMatch(address.address(), [&](std::size_t rank) {
        const auto& place = precedence[rank];
        matches.push_back({place, fitnessOf(place.identity, purpose, now)});
        return false;
    });
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
