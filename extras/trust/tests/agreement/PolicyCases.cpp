// Certificate policies (RFC 5280, 6.1).

#include "Cases.h"

namespace agreement {

namespace {

using norvauthority::certificatePolicies;
using norvauthority::inhibitAnyPolicy;
using norvauthority::policyConstraints;
using norvauthority::policyMappings;

constexpr const char* gold = "1.3.6.1.4.1.99999.10";
constexpr const char* silver = "1.3.6.1.4.1.99999.11";
constexpr const char* foreignGold = "1.3.6.1.4.1.88888.10";
constexpr const char* any = "2.5.29.32.0";

/// A person with these extensions under an authority with those.
Case chain(const std::string& name, const std::vector<Extension>& ofAuthority, const std::vector<Extension>& ofPerson,
           const std::vector<std::string>& asked, const std::vector<Error>& openssl = {},
           const std::vector<Finding>& reasons = {}) {
    const Identity issuer = authority(root(), {.extensions = ofAuthority});
    return {.name = name,
            .leaf = person(issuer, {.extensions = ofPerson}).certificate,
            .untrusted = {issuer.certificate},
            .policies = asked,
            .openssl = openssl,
            .reasons = reasons};
}

std::vector<Case> asked() {
    const Error none{43, 0};
    const Finding missingPolicy{Code::policyMissing, 0};
    return {
        chain("PolicyAskedForAndThere", {certificatePolicies({gold})}, {certificatePolicies({gold})}, {gold}),
        chain("OneOfSeveralPoliciesThere", {certificatePolicies({gold, silver})}, {certificatePolicies({silver})},
              {gold, silver}),
        chain("AnotherPolicyThere", {certificatePolicies({silver})}, {certificatePolicies({silver})}, {gold}, {none},
              {missingPolicy}),
        chain("PolicyOfThePersonAlone", {}, {certificatePolicies({gold})}, {gold}, {none}, {missingPolicy}),
        chain("PolicyOfTheAuthorityAlone", {certificatePolicies({gold})}, {}, {gold}, {none}, {missingPolicy}),
        chain("NoPolicyAtAll", {}, {}, {gold}, {none}, {missingPolicy}),
        chain("NoPolicyAndNoneAskedFor", {}, {}, {}),
        chain("AnyPolicyOfTheAuthority", {certificatePolicies({any})}, {certificatePolicies({gold})}, {gold}),
        chain("AnyPolicyOfBoth", {certificatePolicies({any})}, {certificatePolicies({any})}, {gold}),
        chain("AnyPolicyInhibited", {certificatePolicies({any}), inhibitAnyPolicy(0)}, {certificatePolicies({any})},
              {gold}, {none}, {missingPolicy}),
        chain("CriticalPolicies", {certificatePolicies({gold}, true)}, {certificatePolicies({gold}, true)}, {gold}),
        chain("PolicyTwice", {certificatePolicies({gold, gold})}, {certificatePolicies({gold})}, {gold}, {{42, 1}},
              {{Code::policyInvalid, 1}}),
    };
}

std::vector<Case> mapped() {
    const Extension both = certificatePolicies({gold});
    const Extension mapping = policyMappings({{gold, foreignGold}});
    const Identity strict =
        authority(root(), {.subject = {{"CN", "Strict"}}, .extensions = {both, policyConstraints(std::nullopt, 0)}});
    const Identity below = authority(strict, {.subject = {{"CN", "Below"}}, .extensions = {both, mapping}});
    const Certificate inhibited = person(below, {.extensions = {certificatePolicies({foreignGold})}}).certificate;
    return {
        chain("PolicyMapped", {both, mapping}, {certificatePolicies({foreignGold})}, {gold}),
        chain("PolicyMappedAndAskedForByItsOtherName", {both, mapping}, {certificatePolicies({foreignGold})},
              {foreignGold}, {{43, 0}}, {{Code::policyMissing, 0}}),
        chain("PolicyMappedAway", {both, mapping}, {both}, {gold}, {{43, 0}}, {{Code::policyMissing, 0}}),
        chain("PolicyMappedToAny", {both, policyMappings({{gold, any}})}, {both}, {gold}, {{42, 1}},
              {{Code::policyInvalid, 1}}),
        {.name = "PolicyMappingInhibited",
         .leaf = inhibited,
         .untrusted = {strict.certificate, below.certificate},
         .policies = {gold},
         .openssl = {{43, 0}},
         .reasons = {{Code::policyMissing, 0}}},
    };
}

std::vector<Case> demanded() {
    return {
        chain("PolicyDemandedByTheAuthorityAndMissing",
              {certificatePolicies({gold}), policyConstraints(0, std::nullopt)}, {}, {}, {{43, 0}},
              {{Code::policyMissing, 0}}),
        chain("PolicyDemandedByTheAuthorityAndThere", {certificatePolicies({gold}), policyConstraints(0, std::nullopt)},
              {certificatePolicies({gold})}, {}),
        chain("PolicyDemandedFurtherDown", {certificatePolicies({gold}), policyConstraints(5, std::nullopt)}, {}, {}),
        chain("PolicyConstraintsEmpty", {certificatePolicies({gold}), policyConstraints(std::nullopt, std::nullopt)},
              {certificatePolicies({gold})}, {gold}, {{42, 1}}, {{Code::policyInvalid, 1}}),
    };
}

/// Policy constraints without policies, of which OpenSSL 3.0 leaks what it decoded.
std::vector<Case> constraintsAlone() {
    const Error none{43, 0};
    const Finding missingPolicy{Code::policyMissing, 0};
    const Extension there = certificatePolicies({gold});
    const Extension negative{.oid = "2.5.29.36",
                             .value = norvauthority::der::sequence({norvauthority::der::element(0x80, {0xFF})}),
                             .critical = true};
    const auto renewed = [](const std::string& name, unsigned int demanded, const std::vector<Error>& openssl = {},
                            const std::vector<Finding>& reasons = {}) {
        const Identity old = authority(root(), {.extensions = {policyConstraints(demanded, std::nullopt)}});
        const Identity next = authority(old); // of the same name
        return Case{.name = name,
                    .leaf = person(next).certificate,
                    .untrusted = {old.certificate, next.certificate},
                    .openssl = openssl,
                    .reasons = reasons};
    };
    return {
        chain("PolicyDemandedWithoutAny", {policyConstraints(0, std::nullopt)}, {there}, {}, {none}, {missingPolicy}),
        chain("PolicyDemandedOfThePersonWithoutAny", {policyConstraints(1, std::nullopt)}, {there}, {}, {none},
              {missingPolicy}),
        chain("PolicyDemandedBehindThePerson", {policyConstraints(2, std::nullopt)}, {}, {}),
        chain("PolicyDemandedByThePersonAlone", {there}, {policyConstraints(0, std::nullopt)}, {}, {none},
              {missingPolicy}),
        chain("PolicyDemandedTwice", {policyConstraints(9, std::nullopt)}, {policyConstraints(0, std::nullopt)}, {},
              {none}, {missingPolicy}),
        chain("PolicyDemandedAboveConstraintsAlone", {there, policyConstraints(0, std::nullopt)},
              {policyConstraints(std::nullopt, 0)}, {}, {none}, {missingPolicy}),
        chain("MappingInhibitedWithoutPolicies", {policyConstraints(std::nullopt, 0)}, {there}, {}),
        chain("PolicyAskedForBesideConstraintsAlone", {policyConstraints(9, std::nullopt)}, {there}, {gold}, {none},
              {missingPolicy}),
        chain("ConstraintsAloneEmpty", {policyConstraints(std::nullopt, std::nullopt)}, {}, {}, {{42, 1}},
              {{Code::policyInvalid, 1}}),
        chain("ConstraintsAloneNegative", {negative}, {}, {}, {{42, 1}}, {{Code::policyInvalid, 1}}),
        chain("PolicyTwiceBelowConstraintsAlone", {policyConstraints(9, std::nullopt)},
              {certificatePolicies({gold, gold})}, {}, {{42, 0}}, {{Code::policyInvalid, 0}}),
        chain("ConstraintsAloneEmptyBelowOthers", {policyConstraints(9, std::nullopt)},
              {policyConstraints(std::nullopt, std::nullopt)}, {}, {{42, 0}}, {{Code::policyInvalid, 0}}),
        renewed("WhatIsIssuedToItselfDoesNotCountTowardsADemand", 2),
        renewed("APolicyDemandedBehindWhatIsIssuedToItself", 1, {none}, {missingPolicy}),
    };
}

/// Each authority maps each policy to each: what has to be kept doubles with each of them unless it is bounded.
Case growing() {
    const std::vector<std::string> two{gold, silver};
    std::vector<Certificate> untrusted;
    Identity issuer = root();
    for (int at = 0; at != 24; ++at) {
        issuer = authority(
            issuer, {.subject = {{"CN", "Authority " + std::to_string(at)}},
                     .extensions = {certificatePolicies(two),
                                    policyMappings({{gold, gold}, {gold, silver}, {silver, gold}, {silver, silver}})}});
        untrusted.push_back(issuer.certificate);
    }
    return {.name = "PoliciesThatDoubleAtEachLevel",
            .leaf = person(issuer, {.extensions = {certificatePolicies(two)}}).certificate,
            .untrusted = untrusted,
            .policies = {gold},
            .opensslAccepts = false,
            .reasons = {{Code::tooMuchWork, 0}}};
}

} // namespace

std::vector<Case> policyCases() {
    std::vector<Case> all{growing()};
    for (const auto& some : {asked(), mapped(), demanded(), constraintsAlone()})
        all.insert(all.end(), some.begin(), some.end());
    return all;
}

} // namespace agreement
