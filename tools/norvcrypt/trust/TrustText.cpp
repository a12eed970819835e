#include "base/Failure.h"
#include "openssl/CertificateDetails.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Escape.h>

namespace norvcrypt {

namespace Trust = Norvane::Crypto::Trust;

namespace {

std::string purposeText(Trust::Purpose purpose) {
    switch (purpose) {
    case Trust::Purpose::sign:
        return "for signing";
    case Trust::Purpose::encrypt:
        return "for encryption";
    case Trust::Purpose::authority:
        return "as an authority";
    case Trust::Purpose::any:
        break;
    }
    return "for any purpose";
}

std::string revocationText(Trust::Revocation revocation) {
    switch (revocation) {
    case Trust::Revocation::available:
        return "revocation lists looked at where there are any";
    case Trust::Revocation::required:
        return "revocation lists required";
    case Trust::Revocation::none:
        break;
    }
    return "revocation lists not looked at";
}

std::string momentText(const TrustAnswer& answer) {
    std::string moment = isoTime(answer.verdict.judgedAt);
    if (!answer.options.atSigningTime)
        return moment;
    return moment +
           (answer.options.at ? " (when the signer says to have signed)" : " (now: the signer states no time)");
}

std::string statusText(Trust::RevocationStatus status) {
    switch (status) {
    case Trust::RevocationStatus::noList:
        return ", no revocation list";
    case Trust::RevocationStatus::unusable:
        return ", no revocation list that can be used";
    case Trust::RevocationStatus::good:
        return ", not revoked";
    case Trust::RevocationStatus::revoked:
        return ", revoked";
    case Trust::RevocationStatus::notLookedAt:
        break;
    }
    return "";
}

std::string addresses(const std::vector<std::string>& all) {
    std::string text;
    for (const std::string& address : all)
        text += (text.empty() ? "" : ", ") + Norvane::escapeForDisplay(address);
    return text;
}

void tell(TextOutput& out, const std::string& indent, const std::string& kind, const Trust::Reason& reason) {
    out.line(indent + kind + " (" + Trust::nameOf(reason.code) + "): " + reason.text);
    if (!reason.advice.empty())
        out.line(indent + "  what to do: " + reason.advice);
}

/// Those about one certificate of the chain, or about none that is in it.
void tellAbout(TextOutput& out, const TrustAnswer& answer, const Colours& colours, const std::string& indent,
               std::optional<unsigned int> depth) {
    const auto isAbout = [&](const Trust::Reason& reason) {
        const bool isInChain = reason.depth < answer.verdict.chain.size();
        return depth ? isInChain && reason.depth == *depth : !isInChain;
    };
    for (const Trust::Reason& reason : answer.verdict.reasons)
        if (isAbout(reason))
            tell(out, indent, colours.bad("reason"), reason);
    for (const Trust::Reason& note : answer.verdict.notes)
        if (isAbout(note))
            tell(out, indent, colours.doubtful("note"), note);
}

void tellSender(TextOutput& out, const TrustAnswer& answer, const Colours& colours) {
    if (!answer.sender)
        return;
    for (const Trust::Reason& reason : answer.sender->reasons)
        tell(out, "  ", colours.bad("reason"), reason);
    if (answer.sender->matches())
        out.line("  the certificate is for " + addresses(answer.from));
}

} // namespace

std::string trustSummary(const TrustAnswer& answer, const Colours& colours) {
    return (answer.accepted() ? colours.good("accepted") : colours.bad("REFUSED")) + ", judged by " +
           momentText(answer) + " " + purposeText(answer.options.purpose) + ", " +
           revocationText(answer.options.revocation);
}

void tellUnused(const TrustJudge& judge) {
    for (const std::string& line : judge.problems())
        reportError("not used: " + line);
}

void tellReasons(TextOutput& out, const TrustAnswer& answer, const Colours& colours) {
    for (const Trust::Reason& reason : answer.verdict.reasons)
        tell(out, "  ", colours.bad("reason"), reason);
    for (const Trust::Reason& note : answer.verdict.notes)
        tell(out, "  ", colours.doubtful("note"), note);
    tellSender(out, answer, colours);
}

void tellChain(TextOutput& out, const TrustAnswer& answer, const Colours& colours) {
    const auto& links = answer.verdict.links;
    std::size_t level = 0;
    if (answer.verdict.has(Trust::ReasonCode::issuerMissing) && !links.empty()) {
        out.line(colours.bad("?") + " " + displayName(links.back().certificate->issuer()) + " is not there");
        ++level;
    }
    for (std::size_t at = links.size(); at-- > 0; ++level) {
        const Trust::Link& link = links[at];
        const Description facts = certificateFacts(link.certificate);
        const std::string end =
            facts.contains("notAfter") ? facts["notAfter"].get<std::string>() : "an unreadable time";
        out.line((level == 0 ? "" : std::string(level * 3 - 3, ' ') + "`- ") +
                 displayName(link.certificate->subject()) + " (" +
                 (link.anchor ? colours.good("believed") + ", " : "") + "until " + end + statusText(link.revocation) +
                 ")");
        tellAbout(out, answer, colours, std::string(level * 3 + 3, ' '), static_cast<unsigned int>(at));
    }
    tellAbout(out, answer, colours, "  ", std::nullopt);
    tellSender(out, answer, colours);
}

} // namespace norvcrypt
