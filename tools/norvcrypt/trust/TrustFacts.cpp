#include "openssl/CertificateDetails.h"
#include "show/Facts.h"
#include "trust/TrustReport.h"

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace Trust = Norvane::Crypto::Trust;

namespace {

/// What tells one certificate from another.
Description identityOf(const NVX509::RefCertificate& certificate, const std::vector<const char*>& keys) {
    const Description facts = certificateFacts(certificate);
    Description identity = Description::object();
    for (const char* const key : keys)
        if (facts.contains(key))
            identity[key] = facts[key];
    return identity;
}

Description reasonFacts(const Trust::Reason& reason) {
    Description facts{
        {"code", Trust::nameOf(reason.code)}, {"number", static_cast<int>(reason.code)}, {"depth", reason.depth}};
    if (!reason.certificate.isNull())
        facts["certificate"] = identityOf(reason.certificate, {"subject", "sha256"});
    facts["text"] = reason.text;
    putText(facts, "advice", reason.advice);
    return facts;
}

Description reasonFacts(const std::vector<Trust::Reason>& reasons) {
    Description all = Description::array();
    for (const Trust::Reason& reason : reasons)
        all.push_back(reasonFacts(reason));
    return all;
}

Description chainFacts(const std::vector<Trust::Link>& links) {
    Description all = Description::array();
    for (const Trust::Link& link : links) {
        Description facts{{"depth", all.size()}};
        facts.update(identityOf(link.certificate, {"subject", "issuer", "serial", "sha256", "notBefore", "notAfter"}));
        facts["anchor"] = link.anchor;
        facts["fromMessage"] = link.fromMessage;
        facts["revocation"] = Trust::nameOf(link.revocation);
        all.push_back(std::move(facts));
    }
    return all;
}

} // namespace

Description trustFacts(const TrustAnswer& answer) {
    Description facts{{"accepted", answer.accepted()},
                      {"judgedAt", isoTime(answer.verdict.judgedAt)},
                      {"validUntil", isoTime(answer.verdict.validUntil)},
                      {"purpose", Trust::nameOf(answer.options.purpose)},
                      {"revocation", Trust::nameOf(answer.options.revocation)},
                      {"reasons", reasonFacts(answer.reasons())},
                      {"notes", reasonFacts(answer.verdict.notes)},
                      {"chain", chainFacts(answer.verdict.links)}};
    if (answer.sender)
        facts["sender"] = {{"relation", Trust::nameOf(answer.sender->relation)},
                           {"from", answer.from},
                           {"certified", answer.sender->certified},
                           {"uncertified", answer.sender->uncertified}};
    return facts;
}

} // namespace norvcrypt
