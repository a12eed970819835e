#include "commands/VerifyReport.h"
#include "files/Colours.h"
#include "files/Output.h"
#include "show/DiagnosisReport.h"
#include "show/SignatureReport.h"
#include "show/TextAndJson.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Escape.h>

#include <algorithm>
#include <cstddef>

namespace norvcrypt {

namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;
using Norvane::Crypto::CMS::SignatureVerdict;
using Norvane::Crypto::CMS::SignedReader;

namespace {

constexpr const char* certificatesAlone =
    "no signer: the structure holds certificates alone, which norvcrypt inspect shows";

const char* noSignerText(const SignedReader& message) {
    return message.certificates().empty() ? "no signer" : certificatesAlone;
}

std::string bodyText(const JudgedBody& body, const Subject& subject) {
    const std::string length = std::to_string(body.length) + " bytes";
    const std::string content = "the content of " + inputName(subject.signature);
    if (subject.embedded)
        return "body: " + content + ", " + length;
    std::string given = "body: " + inputName(subject.body.value_or("-")) + ", " + length;
    if (!body.isContent)
        return given;
    return given + (*body.isContent ? ", which is " : ", which is not ") + content;
}

void tellSigner(TextOutput& out, const std::string& number, const JudgedSigner& judged,
                const SignedReader::Signer& signer, const SMime::Explanation* explanation, bool trustAsked) {
    const Colours colours;
    out.line("signer " + number + ": " + verdictText(judged.result, signer));
    if (explanation != nullptr)
        tellExplanation(out, "signer " + number, "", *explanation);
    if (judged.trust) {
        out.line("trust in signer " + number + ": " + trustSummary(*judged.trust, colours));
        tellReasons(out, *judged.trust, colours);
    } else if (trustAsked) {
        out.line("trust in signer " + number + ": not judged, there is no good signature");
    }
}

/// One signer, and why it is refused.
std::string inOneLine(const JudgedSigner& judged, const SignedReader::Signer& signer,
                      const SMime::Explanation* explanation) {
    std::string text = verdictText(judged.result, signer);
    if (explanation != nullptr)
        for (const SMime::Finding& finding : explanation->findings)
            text.append(", ").append(finding.text);
    if (judged.trust) {
        text += judged.trust->accepted() ? ", trust: accepted" : ", trust: REFUSED";
        for (const Trust::Reason& reason : judged.trust->reasons())
            text.append(" (").append(Trust::nameOf(reason.code)).append(")");
    }
    return text;
}

} // namespace

SignatureVerdict JudgedStructure::verdict() const {
    const auto has = [this](SignatureVerdict verdict) {
        return std::ranges::any_of(signers, [&](const JudgedSigner& signer) {
            return verdict == signer.result.verdict ||
                   (verdict == SignatureVerdict::refused && signer.trust && !signer.trust->accepted());
        });
    };
    if (signers.empty() || has(SignatureVerdict::refused))
        return SignatureVerdict::refused;
    return has(SignatureVerdict::unsupported) ? SignatureVerdict::unsupported : SignatureVerdict::good;
}

void tellVerdict(const JudgedStructure& judged, const Subject& subject, bool trustAsked) {
    const auto& signers = judged.message.signers();
    const SMime::Diagnosis& diagnosis = judged.diagnosis;
    TextOutput out;
    for (std::size_t at = 0; at != signers.size(); ++at)
        tellSigner(out, std::to_string(at + 1), judged.signers[at], signers[at], explanationOf(diagnosis, at),
                   trustAsked);
    if (!diagnosis.notLooked.empty())
        out.line("why it is refused was not looked into everywhere: " + diagnosis.notLooked);
    if (signers.empty()) {
        out.line(noSignerText(judged.message));
        out.flush();
        return;
    }
    out.line(Norvane::escapeForDisplay(judged.body ? bodyText(*judged.body, subject) : ""));
    if (!trustAsked)
        out.line("Trust in the certificates was not checked: a good signature does not tell who signed.");
    for (std::size_t at = 0; at != signers.size(); ++at)
        out.line("details of signer " + std::to_string(at + 1) + ": " + detailsText(signers[at]));
    out.flush();
}

Description verdictFacts(const JudgedStructure& judged, const Subject& subject, const TrustJudge* judge) {
    Description facts{{"verdict", verdictName(judged.verdict())}};
    if (judged.body) {
        facts["body"] = {{"file", subject.embedded ? subject.signature : subject.body.value_or("-")},
                         {"embedded", subject.embedded},
                         {"length", judged.body->length}};
        if (judged.body->isContent)
            facts["body"]["isContent"] = *judged.body->isContent;
    }
    facts["trustChecked"] = judge != nullptr;
    facts["signers"] = Description::array();
    for (std::size_t at = 0; at != judged.signers.size(); ++at) {
        const JudgedSigner& one = judged.signers[at];
        Description signer = signerFacts(one.result, judged.message.signers()[at]);
        if (one.trust)
            signer["trust"] = trustFacts(*one.trust);
        if (const SMime::Explanation* const explanation = explanationOf(judged.diagnosis, at))
            signer["explanation"] = explanationFacts(*explanation);
        facts["signers"].push_back(std::move(signer));
    }
    if (!judged.diagnosis.notLooked.empty())
        facts["notLooked"] = judged.diagnosis.notLooked;
    facts["problems"] = judge != nullptr ? Description(judge->problems()) : Description::array();
    return facts;
}

std::string verdictInOneLine(const JudgedStructure& judged, const Subject& subject, bool trustAsked) {
    if (judged.message.signers().empty())
        return noSignerText(judged.message);
    std::string text;
    for (std::size_t at = 0; at != judged.signers.size(); ++at) {
        if (judged.signers.size() > 1)
            text += (at == 0 ? "signer " : "; signer ") + std::to_string(at + 1) + ": ";
        text += inOneLine(judged.signers[at], judged.message.signers()[at], explanationOf(judged.diagnosis, at));
    }
    if (!trustAsked)
        text += "; trust was not checked";
    if (judged.body)
        text += "; " + Norvane::escapeForDisplay(bodyText(*judged.body, subject));
    return text;
}

} // namespace norvcrypt
