#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "openssl/CertificateDetails.h"
#include "read/CertificateFile.h"
#include "read/CmsFile.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using CMS::CarriedContent;
using CMS::SignatureReason;
using CMS::SignatureVerdict;

namespace {

struct VerifyOptions {
    std::string signature;
    std::optional<std::string> certificate;
    std::optional<std::string> in;
    bool embedded = false;
};

/// The sender decides whether a structure carries its content; which body is judged is for the user to say.
void checkBody(const VerifyOptions& options, CarriedContent carried) {
    if (options.embedded && carried == CarriedContent::none)
        throw Failure(inputName(options.signature) +
                      " carries no content, the signature is detached: give its body with --in");
    if (!options.embedded && !options.in && carried != CarriedContent::none)
        throw Failure(inputName(options.signature) +
                      " carries its content: give --embedded to judge that, or --in with "
                      "the body that it is to be compared with");
}

CMS::SignatureReport judge(const CMS::RefContentInfo& structure, const VerifyOptions& options,
                           const std::optional<std::list<NVX509::RefCertificate>>& certificates, Inputs& inputs) {
    if (options.embedded)
        return certificates ? CMS::verifyEmbeddedSignatures(structure, *certificates)
                            : CMS::verifyEmbeddedSignatures(structure);
    Progress progress("verifying");
    Norvane::MediaIn body = inputs.open(options.in.value_or("-"), &progress);
    return certificates ? CMS::verifySignatures(structure, body, *certificates)
                        : CMS::verifySignatures(structure, body);
}

std::string bodyText(const CMS::SignatureReport& report, const VerifyOptions& options, CarriedContent carried) {
    const std::string length = std::to_string(report.bodyLength) + " bytes";
    const std::string content = "the content of " + inputName(options.signature);
    if (options.embedded)
        return "body: " + content + ", " + length;
    std::string given = "body: " + inputName(options.in.value_or("-")) + ", " + length;
    if (carried == CarriedContent::none)
        return given;
    const bool differs = std::ranges::any_of(report.signers, [](const CMS::SignatureResult& signer) {
        return signer.reason == SignatureReason::contentDiffers;
    });
    return given + (differs ? ", which is not " : ", which is ") + content;
}

/// The numbers under which operators know what the library logs about a signature.
std::string eventOf(SignatureReason reason) {
    switch (reason) {
    case SignatureReason::messageDigestMissing:
        return " (event 0x300004F)";
    case SignatureReason::bodyDiffers:
        return " (event 0x3000050)";
    case SignatureReason::keyUnusable:
        return " (event 0x3000051)";
    case SignatureReason::signatureWrong:
        return " (event 0x3000052)";
    default:
        return "";
    }
}

std::string certificateText(const NVX509::RefCertificate& certificate) {
    return "certificate SHA-256 " + fingerprint(certificate) + " " + displayName(certificate->subject());
}

std::string reasonText(const CMS::SignatureResult& result, const CMS::SignerInfo& signer) {
    if (result.reason == SignatureReason::certificateMissing) {
        const PKCS7_SIGNER_INFO* const raw = signer;
        std::string text = "no certificate with issuer " + displayName(signer.issuerAndSerialNumber().issuer());
        if (raw->issuer_and_serial != nullptr)
            text += " serial number " + hexNumber(raw->issuer_and_serial->serial);
        return text;
    }
    std::string text = CMS::textOf(result.reason);
    if (!result.algorithm.empty())
        text += ": " + Norvane::escapeForDisplay(result.algorithm);
    return text + eventOf(result.reason);
}

/// To be shown as it is.
std::string verdictText(const CMS::SignatureResult& result, const CMS::SignerInfo& signer) {
    std::string text = "good signature";
    if (result.verdict == SignatureVerdict::refused)
        text = "NOT VERIFIED, " + reasonText(result, signer);
    else if (result.verdict == SignatureVerdict::unsupported)
        text = "NOT JUDGED, " + reasonText(result, signer);
    return static_cast<X509*>(result.certificate) == nullptr ? text : text + ", " + certificateText(result.certificate);
}

Exit exitOf(const CMS::SignatureReport& report) {
    const auto has = [&report](SignatureVerdict verdict) {
        return std::ranges::any_of(report.signers, [&](const auto& signer) { return signer.verdict == verdict; });
    };
    if (has(SignatureVerdict::refused))
        return Exit::refused;
    return has(SignatureVerdict::unsupported) ? Exit::failed : Exit::good;
}

Exit verify(const VerifyOptions& options) {
    Inputs inputs;
    std::optional<std::list<NVX509::RefCertificate>> certificates;
    if (options.certificate)
        certificates = readCertificates(inputs, *options.certificate);
    const CMS::RefContentInfo structure = readSignature(inputs, options.signature);
    if (const PKCS7* const raw = structure; PKCS7_type_is_signed(raw) == 0)
        throw Failure(inputName(options.signature) + " holds no signature but " + objectName(raw->type));
    const CMS::SignedData data = CMS::signedData(structure);
    TextOutput out;
    if (data.signerInfo().empty()) {
        out.line("no signer");
        out.flush();
        return Exit::refused;
    }
    const CarriedContent carried = CMS::carriedContent(structure);
    checkBody(options, carried);
    const CMS::SignatureReport report = [&] {
        try {
            return judge(structure, options, certificates, inputs);
        } catch (const Norvane::Exception& failure) {
            throw Failure("cannot judge the signatures in " + inputName(options.signature), failure);
        }
    }();
    std::size_t number = 0;
    auto signer = data.signerInfo().begin();
    for (const CMS::SignatureResult& result : report.signers)
        out.line("signer " + std::to_string(++number) + ": " + verdictText(result, *signer++));
    out.line(Norvane::escapeForDisplay(bodyText(report, options, carried)));
    out.line("Trust in the certificates was not checked: a good signature does not tell who signed.");
    out.flush();
    return exitOf(report);
}

} // namespace

void addVerify(Command& commands, Action& action) {
    auto options = std::make_shared<VerifyOptions>();
    Command* command = commands.command(
        "verify", "Verifies every signature of a CMS structure; trust in the certificates is not checked");
    command->option("--signature", options->signature, "The structure, DER or PEM")->typeName("SIG.p7s")->required();
    command
        ->option("--cert", options->certificate,
                 "Certificates to verify with, instead of those in the structure; each signer takes the one with its "
                 "issuer and serial number")
        ->typeName("FILE");
    Option* body =
        command
            ->option(
                "--in", options->in,
                "The body; \"-\", as without it, is standard input. A content in the structure must be equal to it")
            ->typeName("BODY");
    command
        ->flag("--embedded", options->embedded,
               "Judge the content that the structure carries; one that carries any needs this or --in")
        ->excludes(body);
    command->footer("Exit code: 0 every signature is good, 1 one is not, 2 an algorithm or a kind of signer is not "
                    "supported, or there is nothing to judge.");
    command->whenChosen([options, &action] { action = [options] { return verify(*options); }; });
}

} // namespace norvcrypt
