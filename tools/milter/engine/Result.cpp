// What the reader of S/MIME says, in the words of RFC 7281.

#include "engine/Incoming.h"

#include <norvcrypto-trust/TrustSender.h>
#include <norvcrypto/DistinguishedName.h>

#include <algorithm>
#include <array>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;
using CMS::SignatureReason;
using CMS::SignatureVerdict;
using Trust::ReasonCode;

bool isEncrypted(const SMime::Layer& layer) {
    return layer.kind == SMime::LayerKind::enveloped || layer.kind == SMime::LayerKind::authEnveloped;
}

bool isSigned(const SMime::Layer& layer) {
    return layer.kind == SMime::LayerKind::multipartSigned || layer.kind == SMime::LayerKind::opaqueSigned;
}

/// The signature that a result is about.
struct Decisive {
    const SMime::Layer* layer = nullptr;
    const SMime::LayerSigner* signer = nullptr;
};

/// The first signer who is accepted, else the first whose signature is refused, else the first one.
Decisive decisiveOf(const SMime::Answer& answer) {
    Decisive first;
    Decisive refused;
    for (const SMime::Layer& layer : answer.layers) {
        if (!layer.coversContent || !isSigned(layer))
            continue;
        if (first.layer == nullptr)
            first = {&layer, nullptr};
        for (const SMime::LayerSigner& signer : layer.signers) {
            if (answer.verdict == SMime::Verdict::accepted && signer.isAccepted())
                return {&layer, &signer};
            if (signer.result.verdict == SignatureVerdict::refused && refused.signer == nullptr)
                refused = {&layer, &signer};
            if (first.signer == nullptr)
                first = {&layer, &signer};
        }
    }
    return refused.signer != nullptr ? refused : first;
}

/// Where the signature is, as IMAP numbers parts (RFC 3501, 6.4.5), in what is delivered: behind the innermost encrypted layer.
std::string partOf(const SMime::Answer& answer, const SMime::Layer& layer) {
    std::string root = "1";
    for (const SMime::Layer& one : answer.layers) {
        const bool isAround = isEncrypted(one) && one.coversContent && layer.path.starts_with(one.path + '.');
        if (isAround && one.path.size() + 2 > root.size())
            root = one.path + ".1";
    }
    std::string path = layer.path + (layer.kind == SMime::LayerKind::multipartSigned ? ".2" : "");
    path.erase(0, std::min(path.size(), root.size() + 1));
    return path.empty() ? "1" : path;
}

void describeSigner(const SMime::Answer& answer, const Decisive& decisive, SMimeResult& result) {
    if (decisive.layer == nullptr)
        return;
    result.part = partOf(answer, *decisive.layer);
    const bool hasCertificate = decisive.signer != nullptr && !decisive.signer->result.certificate.isNull();
    if (!hasCertificate)
        return;
    const NVX509::RefCertificate& certificate = decisive.signer->result.certificate;
    const Trust::SenderMatch match = Trust::matchSender(certificate, answer.from);
    // Of several addresses the one that the mail is from.
    for (const std::string& address : answer.from) {
        const bool isItsOwn = std::ranges::any_of(match.certified, [&](const std::string& one) {
            return !Trust::comparableAddress(one).empty() &&
                   Trust::comparableAddress(one) == Trust::comparableAddress(address);
        });
        if (isItsOwn && result.identifier.empty())
            result.identifier = address;
    }
    if (result.identifier.empty() && !match.certified.empty())
        result.identifier = match.certified.front();
    result.issuer = NVX509::displayName(certificate->issuer());
    try {
        result.serial = certificate->serialNumber().hex();
    } catch (const Norvane::Exception&) {
        result.serial.clear(); // a negative one, which RFC 5280 forbids
    }
}

/// Why the signature itself is refused.
const char* resultOf(SignatureReason reason) {
    switch (reason) {
    case SignatureReason::certificateMissing:
    case SignatureReason::certificateDamaged:
    case SignatureReason::keyUnusable:
        return "permerror"; // a later attempt has no certificate either
    default:
        return "fail";
    }
}

bool isAmong(ReasonCode code, std::initializer_list<ReasonCode> codes) {
    return std::ranges::find(codes, code) != codes.end();
}

/// Why the signer is not believed. One reason that is worse than the others decides.
const char* resultOf(const Trust::Verdict& verdict) {
    const auto any = [&](std::initializer_list<ReasonCode> codes) {
        return std::ranges::any_of(verdict.reasons, [&](const Trust::Reason& one) { return isAmong(one.code, codes); });
    };
    const auto all = [&](std::initializer_list<ReasonCode> codes) {
        return std::ranges::all_of(verdict.reasons, [&](const Trust::Reason& one) { return isAmong(one.code, codes); });
    };
    if (any({ReasonCode::revoked, ReasonCode::signatureWrong}))
        return "fail";
    if (all({ReasonCode::listMissing, ReasonCode::listExpired, ReasonCode::listNotYetValid,
             ReasonCode::listIssuerMissing}))
        return "temperror"; // lists come anew
    if (all({ReasonCode::issuerMissing}))
        return "permerror";
    if (all({ReasonCode::algorithmUnsupported, ReasonCode::nameConstraintsUnsupported,
             ReasonCode::listAlgorithmUnsupported, ReasonCode::tooMuchWork}))
        return "neutral";
    return "policy";
}

std::string resultOfRefused(const SMime::Answer& answer, const Decisive& decisive) {
    const bool isSignatureWrong = std::ranges::any_of(answer.layers, [](const SMime::Layer& layer) {
        return layer.coversContent && layer.status == SMime::LayerStatus::signatureWrong;
    });
    if (isSignatureWrong && decisive.signer != nullptr)
        return resultOf(decisive.signer->result.reason);
    if (isSignatureWrong)
        return "fail";
    if (decisive.signer != nullptr && decisive.signer->trust && !decisive.signer->trust->accepted)
        return resultOf(*decisive.signer->trust);
    return "policy"; // somebody else than the sender
}

} // namespace

SMimeResult resultOf(const SMime::Answer& answer) {
    SMimeResult result;
    result.reason = answer.detail;
    const Decisive decisive = decisiveOf(answer);
    describeSigner(answer, decisive, result);
    switch (answer.verdict) {
    case SMime::Verdict::notSMime:
    case SMime::Verdict::certificates:
        result.result = "none";
        break;
    case SMime::Verdict::decrypted:
        result.result = "none";
        result.reason = "encrypted, and nobody signed it";
        break;
    case SMime::Verdict::accepted:
        result.result = "pass";
        result.reason.clear();
        break;
    case SMime::Verdict::signatureGood:
        result.result = "policy";
        result.reason = "the signature is good, and there are no trust anchors to judge the signer by";
        break;
    case SMime::Verdict::refused:
        result.result = resultOfRefused(answer, decisive);
        break;
    case SMime::Verdict::noKey:
    case SMime::Verdict::unsupported:
    case SMime::Verdict::damaged:
        result.result = "neutral";
        break;
    case SMime::Verdict::tooCostly:
        result.result = "policy";
        break;
    }
    // What is shown beside the content is not what was signed or encrypted.
    const bool isJudged = result.result == "pass" || answer.verdict == SMime::Verdict::decrypted;
    if (isJudged && !answer.notCovered.empty()) {
        result.result = "policy";
        result.reason = "parts of the message are not covered: " + answer.notCovered.front().type + " at " +
                        answer.notCovered.front().path;
    }
    return result;
}

} // namespace norvmilter
