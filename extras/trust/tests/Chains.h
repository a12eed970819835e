#pragma once

// Small authorities to judge by, and short ways to ask.

#include "support/X509Testing.h"

#include <norvcrypto-trust/Trust.h>

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace trusttesting {

using namespace Norvane::Crypto;
using namespace Norvane::Crypto::Trust;
using norvauthority::CertificateRequest;
using norvauthority::CrlRequest;
using norvauthority::GeneralName;
using norvauthority::Identity;

using norvauthority::Time;
using NVX509::RefCertificate;
using NVX509::RefCertificateRevocationList;

inline constexpr long day = 86400;

/// Keys that are made once in a process; curves, which take no time.
inline const norvauthority::Key& key(std::size_t number) {
    static std::vector<norvauthority::Key> keys;
    while (keys.size() <= number) {
        keys.push_back(norvauthority::Key::ec());
    }
    return keys[number];
}

/// An authority; a root without issuer.
inline Identity authority(const std::string& name, std::size_t keyNumber, const Identity* issuer = nullptr,
                          CertificateRequest request = {}) {
    request.subject = {{"CN", name}};
    request.key = request.key ? request.key : key(keyNumber);
    request.issuer = issuer;
    request.ca = request.ca.value_or(true);
    if (!request.keyUsage) {
        request.keyUsage = 0x04 | 0x02; // keyCertSign, cRLSign
    }
    return norvauthority::issue(request);
}

/// Somebody who signs mail.
inline Identity user(const Identity& issuer, CertificateRequest request = {}, const std::string& name = "Anna") {
    request.subject = {{"CN", name}};
    request.key = request.key ? request.key : key(9);
    request.issuer = &issuer;
    if (request.serial == "1") {
        request.serial = "a1";
    }
    if (!request.keyUsage) {
        request.keyUsage = 0x80; // digitalSignature
    }
    if (request.extendedKeyUsage.empty()) {
        request.extendedKeyUsage = {"emailProtection"};
    }
    if (request.alternativeNames.empty()) {
        request.alternativeNames = {GeneralName::email("anna@example.org")};
    }
    return norvauthority::issue(request);
}

inline RefCertificate read(const Identity& identity) {
    return x509testing::read(identity);
}
inline RefCertificateRevocationList read(const norvauthority::Crl& list) {
    return x509testing::read(list);
}

/// A list of an authority.
inline norvauthority::Crl list(const Identity& issuer, CrlRequest request = {}) {
    request.issuer = &issuer;
    if (!request.crlNumber) {
        request.crlNumber = "1";
    }
    return norvauthority::issueList(request);
}

/// What is believed, and what a message brings.
struct Case {
    std::shared_ptr<Material> material = std::make_shared<Material>();
    std::list<RefCertificate> certificates;
    std::list<RefCertificateRevocationList> lists;
    Options options;

    Case& anchor(const Identity& one) {
        material->addAnchor(read(one));
        return *this;
    }
    Case& message(const Identity& one) {
        certificates.push_back(read(one));
        return *this;
    }
    Case& known(const norvauthority::Crl& one) {
        material->addList(read(one));
        return *this;
    }
    Case& required() {
        options.revocation = Revocation::required;
        return *this;
    }
    [[nodiscard]] Verdict judge(const Identity& who) const {
        return Verifier(material).judge(read(who), certificates, lists, options);
    }
};

/// "expired 0, revoked 1": the codes of reasons with their depths, in their order.
inline std::string codesOf(const std::vector<Reason>& reasons) {
    std::string text;
    for (const Reason& one : reasons) {
        text += (text.empty() ? "" : ", ") + std::string(nameOf(one.code)) + " " + std::to_string(one.depth);
    }
    return text;
}

/// The codes, and "accepted" or "refused" as the verdict has it.
inline std::string shown(const Verdict& verdict) {
    return (verdict.accepted ? "accepted " : "refused ") + codesOf(verdict.reasons);
}

inline const Reason& find(const std::vector<Reason>& reasons, ReasonCode code) {
    static const Reason none;
    const auto found =
        std::find_if(reasons.begin(), reasons.end(), [code](const Reason& one) { return one.code == code; });
    return found == reasons.end() ? none : *found;
}

class TrustTest : public x509testing::QuietQueue {
protected:
    Identity m_root = authority("Root", 0);
    Identity m_middle = authority("Middle", 1, &m_root, {.serial = "b2"});

    /// The chain of `who`, issued by `m_middle`, with the root as anchor.
    [[nodiscard]] Case chain() const {
        Case one;
        one.anchor(m_root).message(m_middle);
        return one;
    }
};

} // namespace trusttesting
