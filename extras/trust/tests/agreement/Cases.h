#pragma once

/// \file
/// Chains of certificates, each with what `openssl verify` says about it and what RFC 5280 wants said, both typed by hand.

#include <authority/Authority.h>
#include <authority/Path.h>
#include <norvcrypto-trust/TrustVerdict.h>

#include <ctime>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace agreement {

using norvauthority::Certificate;
using norvauthority::CertificateRequest;
using norvauthority::Crl;
using norvauthority::CrlRequest;
using norvauthority::Extension;
using norvauthority::GeneralName;
using norvauthority::Identity;
using norvauthority::Key;
using norvauthority::Time;

/// An error that `openssl verify` prints: X509_V_ERR_..., and the certificate that it is about, counted from the leaf.
struct Error {
    int number = 0;
    int depth = 0;
    bool ofListSigner = false; ///< found on the path to the signer of a revocation list
    bool operator==(const Error&) const = default;
    auto operator<=>(const Error&) const = default;
};

using Code = Norvane::Crypto::Trust::ReasonCode;

/// A reason of a verdict.
struct Finding {
    Code code = Code::other;
    unsigned int depth = 0;
    bool operator==(const Finding&) const = default;
    auto operator<=>(const Finding&) const = default;
};

enum class For : int { any, sign, encrypt };
enum class Lists : int { none, available, required };

struct Case {
    std::string name;
    Certificate leaf;
    std::vector<Certificate> anchors{};   ///< empty: the root alone
    std::vector<Certificate> untrusted{}; ///< empty: the authority between root and leaf
    bool alone = false;                   ///< no untrusted certificate at all
    std::vector<Crl> lists{};
    std::optional<std::time_t> at{}; ///< unset: now
    For purpose = For::any;
    Lists revocation = Lists::none;
    std::vector<std::string> policies{};
    std::optional<unsigned int> depth{};    ///< the longest path
    bool partialChain = false;              ///< a path may end at an anchor that somebody else issued
    std::vector<std::string> opensslMore{}; ///< options for `openssl verify` alone
    std::vector<Error> openssl{};           ///< what it prints
    std::optional<bool> opensslAccepts{};   ///< unset: when it prints nothing
    std::vector<Finding> reasons{};         ///< of the verdict; empty when it accepts
};

inline std::ostream& operator<<(std::ostream& out, const Error& error) {
    return out << (error.ofListSigner ? "[list signer] " : "") << error.number << " at " << error.depth;
}
inline std::ostream& operator<<(std::ostream& out, const Finding& finding) {
    return out << Norvane::Crypto::Trust::nameOf(finding.code) << " at " << finding.depth;
}
inline std::ostream& operator<<(std::ostream& out, const Case& one) {
    return out << one.name;
}

constexpr std::time_t day = 86400;
/// The moment by which the cases without one of their own are judged: when the process began.
std::time_t now();
inline Time ahead(std::time_t seconds) {
    return Time::at(now() + seconds);
}
inline Time ago(std::time_t seconds) {
    return Time::at(now() - seconds);
}

/// A self-signed authority named CN=Root unless the request says otherwise.
Identity anchor(CertificateRequest request = {});
/// One under `issuer`.
Identity authority(const Identity& issuer, CertificateRequest request = {});
/// A certificate of a person: CN=Alice, alice@example.org.
Identity person(const Identity& issuer, CertificateRequest request = {});

/// Made once: the root, and the authority under it that issues to persons.
const Identity& root();
const Identity& middle();

/// A list of `issuer` that holds now.
Crl listOf(const Identity& issuer, CrlRequest request = {});
norvauthority::Revoked revoked(const Identity& who);

std::vector<Case> pathCases();
std::vector<Case> periodCases();
std::vector<Case> constraintCases();
std::vector<Case> usageCases();
std::vector<Case> listCases();
std::vector<Case> listScopeCases();
std::vector<Case> policyCases();
std::vector<Case> algorithmCases();

} // namespace agreement
