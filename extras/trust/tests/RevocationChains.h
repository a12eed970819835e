#pragma once

// A chain whose certificates are on lists, and somebody who issues the lists of others.

#include "Chains.h"

#include <string>

namespace trusttesting {

using norvauthority::DistributionPoint;
using norvauthority::DistributionPointName;

class TrustRevocation : public TrustTest {
protected:
    const Identity m_anna = user(m_middle, {.crlDistributionPoints = {point("http://lists.example.org/middle.crl")}});

    static DistributionPoint point(const std::string& uri) { return {DistributionPointName{{GeneralName::uri(uri)}}}; }
    [[nodiscard]] Case with(Revocation mode) const {
        Case one = chain();
        one.options.revocation = mode;
        return one;
    }
    static std::string states(const Verdict& verdict) {
        std::string text;
        for (const Link& link : verdict.links) {
            text += (text.empty() ? "" : ", ") + std::string(nameOf(link.revocation));
        }
        return text;
    }
};

class TrustIndirectLists : public TrustRevocation {
protected:
    const Identity m_lister = authority("Lister", 4, &m_root, {.serial = "c3", .keyUsage = 0x02});
    const Identity m_covered =
        user(m_middle,
             {.crlDistributionPoints = {{DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}},
                                         {},
                                         {GeneralName::directory(m_lister.name)}}}});

    [[nodiscard]] norvauthority::Crl indirect(const std::string& revoked) const {
        CrlRequest request;
        request.scope = {.indirect = true};
        request.scope->name = DistributionPointName{{GeneralName::uri("http://lister.example/all.crl")}};
        if (!revoked.empty()) {
            request.revoked = {{.serial = revoked, .certificateIssuer = m_middle.name}};
        }
        return list(m_lister, request);
    }
};

} // namespace trusttesting
