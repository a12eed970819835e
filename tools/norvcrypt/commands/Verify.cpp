#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "openssl/CertificateDetails.h"
#include "read/CmsFile.h"
#include "read/KeysAndCertificates.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Logger.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Hasher.h>

#include <array>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
using Norvane::Crypto::VerifierMediaOut;

namespace {

struct VerifyOptions {
    std::string signature;
    std::optional<std::string> certificate;
    std::optional<std::string> in;
};

CMS::CMSVerifier openSignature(const std::string& path, Inputs& inputs) {
    std::optional<CMS::CMSVerifier> verifier;
    readStructure(inputs, path, "the signature", [&verifier](Norvane::MediaIn& in) { verifier.emplace(in); });
    return *verifier;
}

/// One digest for each algorithm among the signers, all of them fed in one pass over the body.
class Digests {
public:
    Digests(const CMS::CMSVerifier& verifier, const std::list<CMS::SignerInfo>& signers) {
        for (const CMS::SignerInfo& signer : signers) {
            const int nid = algorithmOf(signer);
            if (m_streams.contains(nid))
                continue;
            try {
                m_streams.emplace(nid, verifier.verifierMediaOut(signer));
            } catch (const Norvane::Exception&) {
                m_streams.emplace(nid, std::nullopt); // the signer's verdict tells
            }
        }
    }

    void feed(Norvane::MediaIn& body) {
        std::array<unsigned char, 65536> chunk{};
        for (int count = body.read(chunk.data(), chunk.size()); count > 0;
             count = body.read(chunk.data(), chunk.size()))
            for (auto& [nid, stream] : m_streams)
                if (stream)
                    stream->write(chunk.data(), static_cast<unsigned int>(count));
    }

    /// Null for an algorithm that is not available.
    VerifierMediaOut* of(const CMS::SignerInfo& signer) {
        auto& stream = m_streams.at(algorithmOf(signer));
        return stream ? &*stream : nullptr;
    }

private:
    static int algorithmOf(const CMS::SignerInfo& signer) {
        const PKCS7_SIGNER_INFO* const raw = signer;
        return OBJ_obj2nid(raw->digest_alg->algorithm);
    }

    std::map<int, std::optional<VerifierMediaOut>> m_streams;
};

/// The body is in a file, in the structure, or comes from standard input.
Norvane::MediaIn openBody(const VerifyOptions& options, const CMS::CMSVerifier& verifier, Inputs& inputs,
                          Progress& progress) {
    if (options.in)
        return inputs.open(*options.in, &progress);
    Norvane::MediaIn embedded = CMS::embeddedContent(verifier.contentInfo());
    return embedded.isNull() ? inputs.open("-", &progress) : embedded;
}

/// Why the library said no: it logs that, under numbers that operators know.
std::string reasonOf(const Norvane::RecordingLogSink& log) {
    for (const Norvane::LogRecord& record : log.records()) {
        switch (record.event) {
        case 0x300004E:
            return "the digest algorithm is not the signer's (event 0x300004E)";
        case 0x300004F:
            return "the signed attributes hold no message digest (event 0x300004F)";
        case 0x3000050:
            return "the body is not the one that was signed (event 0x3000050)";
        case 0x3000051:
            return "the certificate has no usable public key (event 0x3000051)";
        case 0x3000052:
            return "the signature does not belong to this body and certificate (event 0x3000052)";
        default:
            break;
        }
    }
    return "the signature is wrong";
}

struct Verdict {
    bool good = false;
    std::string text; ///< to be shown as it is
};

std::string certificateText(const NVX509::RefCertificate& certificate) {
    return "certificate SHA-256 " + fingerprint(certificate) + " " + displayName(certificate->subject());
}

/// Tries the certificates that carry the signer's issuer and serial number; a stranger may have put in a second one.
Verdict judge(const CMS::CMSVerifier& verifier, const CMS::SignerInfo& signer,
              const std::list<NVX509::RefCertificate>& certificates, VerifierMediaOut* digested) {
    const auto log = std::make_shared<Norvane::RecordingLogSink>();
    Norvane::Logger::instance(false).sink(log);
    const PKCS7_SIGNER_INFO* const raw = signer;
    std::optional<Verdict> refused;
    for (const NVX509::RefCertificate& certificate : certificates) {
        if (!isNamedBy(raw->issuer_and_serial, certificate))
            continue;
        if (digested == nullptr)
            return {false, "NOT VERIFIED, the digest algorithm " + objectName(raw->digest_alg->algorithm) +
                               " is not available, " + certificateText(certificate)};
        log->clear();
        if (verifier.isValid(*digested, signer, certificate))
            return {true, "good signature, " + certificateText(certificate)};
        if (!refused)
            refused = Verdict{false, "NOT VERIFIED, " + reasonOf(*log) + ", " + certificateText(certificate)};
    }
    if (refused)
        return *refused;
    std::string name = "issuer " + displayName(signer.issuerAndSerialNumber().issuer());
    if (raw->issuer_and_serial != nullptr)
        name += " serial number " + hexNumber(raw->issuer_and_serial->serial);
    return {false, "NOT VERIFIED, no certificate with " + name};
}

Exit verify(const VerifyOptions& options) {
    Inputs inputs;
    std::list<NVX509::RefCertificate> certificates;
    if (options.certificate)
        certificates = readCertificates(inputs, *options.certificate);
    const CMS::CMSVerifier verifier = openSignature(options.signature, inputs);
    const PKCS7* const structure = verifier.contentInfo();
    if (PKCS7_type_is_signed(structure) == 0)
        throw Failure(inputName(options.signature) + " holds no signature but " + objectName(structure->type));
    const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
    const std::list<CMS::SignerInfo>& signers = data.signerInfo();
    TextOutput out;
    if (signers.empty()) {
        out.line("no signer");
        out.flush();
        return Exit::refused;
    }
    Digests digests(verifier, signers);
    {
        Progress progress("verifying");
        Norvane::MediaIn body = openBody(options, verifier, inputs, progress);
        digests.feed(body);
    }
    Exit code = Exit::good;
    std::size_t number = 0;
    for (const CMS::SignerInfo& signer : signers) {
        const Verdict verdict =
            judge(verifier, signer, options.certificate ? certificates : data.certificates(), digests.of(signer));
        out.line("signer " + std::to_string(++number) + ": " + verdict.text);
        if (!verdict.good)
            code = Exit::refused;
    }
    out.line("Trust in the certificates was not checked: a good signature does not tell who signed.");
    out.flush();
    return code;
}

} // namespace

void addVerify(CLI::App& app, Action& action) {
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand(
        "verify", "Verifies every signature of a CMS structure; trust in the certificates is not checked");
    command->add_option("--signature", options->signature, "The structure, DER or PEM")
        ->type_name("SIG.p7s")
        ->required();
    command
        ->add_option(
            "--cert", options->certificate,
            "Certificates to verify with, instead of those in the structure; each signer takes the one with its "
            "issuer and serial number")
        ->type_name("FILE");
    command
        ->add_option("--in", options->in,
                     "The body; without it the content of the structure, else standard input (\"-\")")
        ->type_name("BODY");
    command->callback([options, &action] { action = [options] { return verify(*options); }; });
}

} // namespace norvcrypt
