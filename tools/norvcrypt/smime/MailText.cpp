#include "base/Failure.h"
#include "files/Colours.h"
#include "files/Output.h"
#include "openssl/CertificateDetails.h"
#include "show/DiagnosisReport.h"
#include "show/SignatureReport.h"
#include "show/TextAndJson.h"
#include "smime/MailReport.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Escape.h>

namespace norvcrypt {

namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;
using Norvane::escapeForDisplay;

namespace {

std::string kindText(SMime::LayerKind kind) {
    switch (kind) {
    case SMime::LayerKind::multipartSigned:
        return "signed (multipart/signed)";
    case SMime::LayerKind::opaqueSigned:
        return "signed";
    case SMime::LayerKind::enveloped:
        return "encrypted";
    case SMime::LayerKind::authEnveloped:
        return "encrypted and authenticated";
    case SMime::LayerKind::certificatesOnly:
        return "certificates";
    case SMime::LayerKind::forwarded:
        return "a message";
    case SMime::LayerKind::other:
        break;
    }
    return "a CMS structure";
}

std::string statusText(const SMime::Layer& layer, const Colours& colours) {
    if (layer.status == SMime::LayerStatus::good)
        return layer.kind == SMime::LayerKind::forwarded ? "" : colours.good("good");
    const std::string name = SMime::nameOf(layer.status);
    return layer.detail.empty() ? colours.bad(name) : colours.bad(name) + ", " + escapeForDisplay(layer.detail);
}

std::string layerText(const SMime::Layer& layer, const Colours& colours) {
    std::string text = "part " + layer.path + ": " + kindText(layer.kind);
    const std::string status = statusText(layer, colours);
    if (!status.empty())
        text += ": " + status;
    const bool holdsContent =
        layer.kind != SMime::LayerKind::forwarded && layer.kind != SMime::LayerKind::certificatesOnly;
    if (!layer.coversContent && holdsContent)
        text += " (not around the content)";
    return text;
}

std::string certificateText(const Norvane::Crypto::NVX509::RefCertificate& certificate) {
    return "certificate SHA-256 " + fingerprint(certificate) + " " + displayName(certificate->subject());
}

void tellSigner(TextOutput& out, const SMime::LayerSigner& signer, const SMime::Answer& answer,
                const std::optional<Trust::Options>& trust, const Colours& colours) {
    const bool isGood = signer.result.verdict == CMS::SignatureVerdict::good;
    const std::string verdict = verdictText(signer.result, signer.identifier);
    out.line("  signer: " + (isGood ? verdict : colours.bad(verdict)));
    if (signer.explanation)
        tellExplanation(out, "it", "  ", *signer.explanation);
    std::string text = "  signature algorithm " + escapeForDisplay(signer.signatureAlgorithm) + ", digest " +
                       escapeForDisplay(signer.digestAlgorithm);
    if (signer.signingTime)
        text += ", says to have signed at " + isoTime(*signer.signingTime);
    out.line(text);
    if (signer.trust && trust) {
        const TrustAnswer judged{*signer.trust, *trust, answer.from, signer.sender};
        out.line("  trust: " + trustSummary(judged, colours));
        tellReasons(out, judged, colours);
    }
}

void tellLayer(TextOutput& out, const SMime::Layer& layer, const SMime::Answer& answer,
               const std::optional<Trust::Options>& trust, const Colours& colours) {
    out.line(layerText(layer, colours));
    if (layer.form == SMime::SignedForm::canonical)
        out.line("  the signature fits with CRLF at the end of each line");
    for (const SMime::LayerSigner& signer : layer.signers)
        tellSigner(out, signer, answer, trust, colours);
    if (!layer.cipher.empty())
        out.line(
            "  cipher " + escapeForDisplay(layer.cipher) +
            (layer.authenticated ? ", authenticated" : ", not authenticated: it may have been changed on its way"));
    for (const SMime::LayerRecipient& recipient : layer.recipients)
        out.line("  recipient: " +
                 escapeForDisplay((recipient.identifier.empty() ? "of another kind" : recipient.identifier) + ", " +
                                  recipient.algorithm) +
                 (recipient.opened ? ", opened with this key" : ""));
    if (layer.kind == SMime::LayerKind::certificatesOnly)
        for (const auto& certificate : layer.certificates)
            out.line("  " + certificateText(certificate));
}

std::string leafText(const SMime::LeafPart& part) {
    return "part " + part.path + ", " + escapeForDisplay(part.type) +
           (part.name.empty() ? "" : ", named \"" + escapeForDisplay(part.name) + '"') + ", " +
           escapeForDisplay(part.transferEncoding) + ", " + std::to_string(part.octets) + " bytes";
}

std::string fieldText(const SMime::ProtectedField& field, const Colours& colours) {
    std::string text = "  " + escapeForDisplay(field.name + ": " + field.value);
    const std::string outside = field.outside ? "outside: " + escapeForDisplay(*field.outside) : "not outside";
    switch (field.state) {
    case SMime::FieldState::same:
        return text;
    case SMime::FieldState::obscured:
        return text + " (" + outside + ", as its sender meant it)";
    case SMime::FieldState::differs:
    case SMime::FieldState::missing:
        break;
    }
    return text + " (" + colours.bad("DIFFERS") + ", " + outside + ")";
}

std::string coverText(const SMime::HeaderProtection& headers) {
    if (headers.isSigned)
        return headers.isEncrypted ? "signed and encrypted" : "signed";
    return headers.isEncrypted ? "encrypted, not signed" : "not covered by a good signature";
}

void tellOnError(const std::vector<Trust::Reason>& reasons) {
    for (const Trust::Reason& reason : reasons) {
        reportError("reason (" + std::string(Trust::nameOf(reason.code)) + "): " + reason.text);
        if (!reason.advice.empty())
            reportError("what to do: " + reason.advice);
    }
}

void tellRefusalOnError(const SMime::LayerSigner& signer) {
    tellOnError(signer.trust->reasons);
    if (signer.sender)
        tellOnError(signer.sender->reasons);
}

std::string overallText(const SMime::Answer& answer, const Colours& colours) {
    const std::string name = SMime::nameOf(answer.verdict);
    switch (answer.verdict) {
    case SMime::Verdict::accepted:
    case SMime::Verdict::signatureGood:
        return answer.notCovered.empty() ? colours.good(name) : colours.doubtful(name + ", in part");
    case SMime::Verdict::decrypted:
    case SMime::Verdict::certificates:
    case SMime::Verdict::notSMime:
        return colours.doubtful(name);
    default:
        return colours.bad(name);
    }
}

} // namespace

void tellMail(const SMime::Answer& answer, const std::optional<Trust::Options>& trust, const std::string& file,
              bool json, const std::vector<std::string>& unused) {
    TextOutput out;
    if (json) {
        Description facts = mailFacts(answer, trust, file);
        if (trust)
            facts["problems"] = unused;
        out.text(asJson(facts));
        out.flush();
        return;
    }
    const Colours colours;
    out.line("verdict: " + overallText(answer, colours) + ": " + escapeForDisplay(answer.detail));
    for (const SMime::Layer& layer : answer.layers)
        tellLayer(out, layer, answer, trust, colours);
    if (answer.headers.scheme != SMime::HeaderScheme::none) {
        out.line("header fields that are " + coverText(answer.headers) + ":");
        for (const SMime::ProtectedField& field : answer.headers.fields)
            out.line(fieldText(field, colours));
        for (const std::string& path : answer.headers.legacyDisplay)
            out.line("  part " + path + " begins with hidden ones, for programs that do not know header protection");
    }
    for (const SMime::LeafPart& part : answer.parts)
        out.line("contains: " + leafText(part));
    for (const SMime::UncoveredPart& part : answer.notCovered)
        out.line(colours.doubtful("not covered") + ": part " + part.path + ", " + escapeForDisplay(part.type));
    for (const std::string& oddity : answer.oddities)
        out.line("odd: " + escapeForDisplay(oddity));
    const bool hasGood = answer.verdict == SMime::Verdict::signatureGood || answer.verdict == SMime::Verdict::accepted;
    if (!trust && hasGood)
        out.line("Trust in the certificates was not checked: a good signature does not tell who signed.");
    out.flush();
}

void tellMailOnError(const SMime::Answer& answer) {
    reportError(std::string(SMime::nameOf(answer.verdict)) + ": " + answer.detail);
    for (const SMime::Layer& layer : answer.layers) {
        if (!layer.coversContent || layer.kind == SMime::LayerKind::forwarded)
            continue;
        std::string text = "part " + layer.path + ": " + kindText(layer.kind) + ": " + SMime::nameOf(layer.status);
        if (!layer.detail.empty())
            text += ", " + layer.detail;
        if (!layer.cipher.empty() && !layer.authenticated)
            text += ", " + layer.cipher + ", not authenticated: it may have been changed on its way";
        reportError(text);
        for (const SMime::LayerSigner& signer : layer.signers)
            if (signer.trust && !signer.isAccepted())
                tellRefusalOnError(signer);
    }
    for (const SMime::UncoveredPart& part : answer.notCovered)
        reportError("not covered, and not written: part " + part.path + ", " + part.type);
    for (const std::string& oddity : answer.oddities)
        reportError("odd: " + oddity);
}

} // namespace norvcrypt
