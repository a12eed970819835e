#include "identities/StoreCheck.h"
#include "identities/OwnerPatterns.h"
#include "openssl/CertificateDetails.h"

#include <algorithm>
#include <array>
#include <map>
#include <unordered_map>
#include <utility>

namespace norvcrypt {

namespace {

using Findings = std::vector<std::vector<Finding>>; ///< one list for each identity

void add(Findings& findings, const Store::Contents& contents, std::size_t identity, Finding finding) {
    finding.folder = contents.identities[identity].folder;
    findings[identity].push_back(std::move(finding));
}

void checkValidity(Findings& findings, const Store::Contents& contents, std::size_t at, std::time_t now) {
    const auto& certificate = contents.identities[at].certificate;
    if (certificate->validityPeriod().valid(now))
        return;
    const bool early = periodAt(certificate, now) == Period::notYetValid;
    const auto text = isoTime(early ? X509_get0_notBefore(certificate) : X509_get0_notAfter(certificate))
                          .value_or("a time that is no proper one");
    add(findings, contents, at,
        {.kind = early ? "notYetValid" : "expired",
         .file = "cert.pem",
         .reason = early ? "the certificate is not valid before " + text : "the certificate expired at " + text});
}

void checkKey(Findings& findings, const Store::Contents& contents, std::size_t at) {
    const auto key = publicKeyDetails(contents.identities[at].certificate);
    if (!key)
        return;
    if (const auto least = leastSafeBits(*key))
        add(findings, contents, at,
            {.kind = "weakKey",
             .file = "cert.pem",
             .reason = "the " + key->name + " key has " + std::to_string(key->bits) + " bits, fewer than " +
                       std::to_string(*least)});
}

void checkDuplicates(Findings& findings, const Store::Contents& contents) {
    std::map<std::pair<unsigned long, std::string>, std::vector<std::size_t>> seen; // by issuer's hash and number
    for (std::size_t at = 0; at < contents.identities.size(); ++at) {
        const auto& certificate = contents.identities[at].certificate;
        // cppcheck-suppress iterators3 ; it takes the braces for a list
        auto& before = seen[{certificate->issuer().hash(), certificate->serialNumber().hex()}];
        const auto same = std::find_if(before.begin(), before.end(), [&](std::size_t other) {
            return contents.identities[other].certificate->issuer() == certificate->issuer();
        });
        if (same == before.end()) {
            before.push_back(at);
            continue;
        }
        const Store::Identity& other = contents.identities[*same];
        const bool copy = isSameCertificate(other.certificate, certificate);
        add(findings, contents, at,
            {.kind = "duplicate",
             .file = "cert.pem",
             .reason = (copy ? "the same certificate as that of "
                             : "another certificate with the issuer and serial number of that of ") +
                       other.folder});
    }
}

/// True when whatever the later identity can be taken for, at whatever moment, the earlier one can be too.
bool replaces(const Store::Identity& earlier, const Store::Identity& later) {
    for (std::size_t purpose = 0; purpose < later.fitness.size(); ++purpose)
        if (later.fitness[purpose] == Store::Fitness::fit && earlier.fitness[purpose] != Store::Fitness::fit)
            return false;
    return isValidWhenever(earlier.certificate, later.certificate);
}

/// Walks the patterns in their order of precedence and compares each with those before it that may cover it.
class Shadows {
public:
    explicit Shadows(const Store::Contents& contents) : m_contents(contents) {}

    /// Why a pattern never wins against those that were handed in before, or nothing; it then counts among them.
    std::optional<std::string> add(const Store::Place& place) {
        const Store::Identity& identity = m_contents.identities[place.identity];
        PatternShape shape(identity.owners[place.owner].pattern.text());
        auto& earlier = m_seen[shape.key()];
        for (const auto& [before, other] : earlier) {
            const Store::Identity& first = m_contents.identities[before.identity];
            if (!other.covers(shape) || (before.identity != place.identity && !replaces(first, identity)))
                continue;
            const Store::Owner& owner = first.owners[before.owner];
            const bool equal = owner.pattern.text() == identity.owners[place.owner].pattern.text();
            return std::string("never wins: ") +
                   (equal ? "the same pattern stands" : "all that it matches is matched by " + owner.pattern.text()) +
                   " in line " + std::to_string(owner.line) + " of " + first.folder + ", which comes first";
        }
        earlier.emplace_back(place, std::move(shape));
        return std::nullopt;
    }

private:
    const Store::Contents& m_contents;
    std::unordered_map<std::string, std::vector<std::pair<Store::Place, PatternShape>>> m_seen;
};

void checkPatterns(Findings& findings, const Store::Contents& contents) {
    Shadows shadows(contents);
    for (const Store::Place& place : contents.precedence) {
        const Store::Owner& owner = contents.identities[place.identity].owners[place.owner];
        const auto impossible = whyNeverMatches(owner.pattern.text());
        const auto why = impossible ? impossible : shadows.add(place);
        if (why)
            add(findings, contents, place.identity,
                {.kind = impossible ? "impossible" : "shadowed",
                 .file = "owners.txt",
                 .line = owner.line,
                 .pattern = owner.pattern.text(),
                 .reason = impossible ? "never matches: " + *why : *why});
    }
}

} // namespace

std::optional<int> leastSafeBits(const PublicKeyDetails& key) {
    static constexpr std::array<std::pair<int, int>, 5> limits{{{EVP_PKEY_RSA, leastFactoringBits},
                                                                {EVP_PKEY_RSA_PSS, leastFactoringBits},
                                                                {EVP_PKEY_DSA, leastFactoringBits},
                                                                {EVP_PKEY_DH, leastFactoringBits},
                                                                {EVP_PKEY_EC, leastCurveBits}}};
    for (const auto& [type, least] : limits)
        if (key.kind == type && key.bits < least)
            return least;
    return std::nullopt;
}

std::vector<Finding> findingsIn(const Store::Contents& contents, std::time_t now) {
    Findings findings(contents.identities.size());
    for (std::size_t at = 0; at < contents.identities.size(); ++at) {
        checkValidity(findings, contents, at, now);
        checkKey(findings, contents, at);
        const auto& fitness = contents.identities[at].fitness;
        if (std::find(fitness.begin(), fitness.end(), Store::Fitness::fit) == fitness.end())
            add(findings, contents, at,
                {.kind = "useless",
                 .reason = contents.identities[at].hasKey
                               ? "neither signing nor encryption is possible with its key usage and its kind of key"
                               : "there is no private key, and nothing can be encrypted to its certificate"});
    }
    checkDuplicates(findings, contents);
    checkPatterns(findings, contents);
    std::vector<Finding> all;
    for (const Store::Problem& problem : contents.problems)
        all.push_back({.kind = "unreadable", .folder = problem.folder, .file = problem.file, .reason = problem.reason});
    for (auto& one : findings) {
        std::stable_sort(one.begin(), one.end(), [](const Finding& a, const Finding& b) { return a.line < b.line; });
        std::move(one.begin(), one.end(), std::back_inserter(all));
    }
    return all;
}

} // namespace norvcrypt
