#include "cms/Judging.h"
#include "commands/Command.h"
#include "commands/SmimeCommands.h"
#include "files/HeldBody.h"
#include "files/Input.h"
#include "files/Output.h"
#include "files/RepeatableBody.h"
#include "identities/Store.h"
#include "openssl/Start.h"
#include "read/CertificateFile.h"
#include "read/StructureFile.h"
#include "recognise/Wrapped.h"
#include "show/DiagnosisReport.h"
#include "show/SignatureReport.h"
#include "show/TextAndJson.h"
#include "trust/TrustJudge.h"
#include "trust/TrustOptions.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/CMSSignedReader.h>

#include <algorithm>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;
using CMS::SignatureResult;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

struct VerifyOptions {
    std::string signature;
    std::optional<std::string> certificate;
    std::optional<std::string> store;
    std::optional<std::string> in;
    std::optional<std::string> out;
    bool embedded = false;
    std::unique_ptr<TrustOptions> trust;
};

/// Where the content goes when it is asked for.
struct ContentFile {
    OutputFile file;
    HeldBody body;
    ContentFile(const std::string& path, Inputs& inputs) : file(path, inputs), body(file) {}
};

/// The sender decides whether a structure carries its content; which body is judged is for the user to say.
void checkBody(const VerifyOptions& options, bool isDetached) {
    if (options.embedded && isDetached)
        throw Failure(inputName(options.signature) +
                      " carries no content, the signature is detached: give its body with --in");
    if (!options.embedded && !options.in && !isDetached)
        throw Failure(inputName(options.signature) +
                      " carries its content: give --embedded to judge that, or --in with "
                      "the body that it is to be compared with");
}

/// Runs what reads the structure.
template <class Work> auto reading(const StructureFile& file, Work work) {
    try {
        return work();
    } catch (const Norvane::Exception& failure) {
        const ContentType& type = file.contentType();
        if (!type.name.empty() && type.name != "pkcs7-signedData")
            throw Failure(file.name() + " holds no signature but " + type.name +
                          (type.name.find("nveloped") != std::string::npos ? ", which norvcrypt decrypt reads" : ""));
        throw Failure("cannot judge the signatures in " + file.name(), failure);
    }
}

/// Reads both to their ends.
JudgedBody compare(SignedReader& message, Norvane::MediaIn body) {
    JudgedBody judged{0, true};
    std::vector<unsigned char> piece(65536);
    std::vector<unsigned char> other(piece.size());
    for (;;) {
        const int count = message.read(piece.data(), static_cast<unsigned int>(piece.size()));
        const int otherCount = body.read(other.data(), static_cast<unsigned int>(other.size()));
        if (count == 0 && otherCount == 0)
            return judged;
        judged.length += static_cast<std::uint64_t>(otherCount);
        if (count != otherCount || !std::equal(piece.begin(), piece.begin() + count, other.begin()))
            judged.isContent = false;
    }
}

/// Passes the body, whichever it is, and the rest of the structure.
JudgedBody passBody(SignedReader& message, const VerifyOptions& options, Inputs& inputs, Progress& progress,
                    std::optional<ContentFile>& content, std::optional<RepeatableBody>& detached) {
    if (options.embedded) {
        Norvane::MediaOut nowhere = Norvane::NullMediaOut();
        message.write(content ? content->body.sink() : nowhere);
        return {message.bodyLength(), std::nullopt};
    }
    const std::string path = options.in.value_or("-");
    if (!message.isDetached())
        return compare(message, inputs.open(path, &progress));
    Norvane::MediaOut digest = message.digest();
    detached.emplace(inputs, path, SMime::DiagnosisBudget().body, &progress);
    detached->write(digest);
    return {message.bodyLength(), std::nullopt};
}

std::string bodyText(const JudgedBody& body, const VerifyOptions& options) {
    const std::string length = std::to_string(body.length) + " bytes";
    const std::string content = "the content of " + inputName(options.signature);
    if (options.embedded)
        return "body: " + content + ", " + length;
    std::string given = "body: " + inputName(options.in.value_or("-")) + ", " + length;
    if (!body.isContent)
        return given;
    return given + (*body.isContent ? ", which is " : ", which is not ") + content;
}

/// What became of one signer.
struct Judged {
    SignatureResult result;
    std::optional<TrustAnswer> trust; ///< when that was asked, and the signature is good
};

/// Who is to be believed is asked of whoever signed, and nobody else.
std::vector<Judged> withTrust(const SignedReader& message, const std::vector<SignatureResult>& results,
                              const std::optional<TrustJudge>& judge, const SignerCertificates& certificates) {
    std::vector<Judged> judged;
    for (const SignatureResult& result : results) {
        const SignedReader::Signer& signer = message.signers()[judged.size()];
        judged.push_back({result, std::nullopt});
        if (!judge || result.verdict != SignatureVerdict::good)
            continue;
        std::list<NVX509::RefCertificate> others = message.certificates();
        if (certificates.given)
            others.insert(others.end(), certificates.given->begin(), certificates.given->end());
        judged.back().trust = judge->judge(result.certificate, others, message.revocationLists(), signer.signingTime());
    }
    return judged;
}

SignatureVerdict verdictOf(const std::vector<Judged>& signers) {
    const auto has = [&signers](SignatureVerdict verdict) {
        return std::ranges::any_of(signers, [&](const Judged& signer) {
            return verdict == signer.result.verdict ||
                   (verdict == SignatureVerdict::refused && signer.trust && !signer.trust->accepted());
        });
    };
    if (signers.empty() || has(SignatureVerdict::refused))
        return SignatureVerdict::refused;
    return has(SignatureVerdict::unsupported) ? SignatureVerdict::unsupported : SignatureVerdict::good;
}

Exit exitOf(SignatureVerdict verdict) {
    switch (verdict) {
    case SignatureVerdict::good:
        return Exit::good;
    case SignatureVerdict::unsupported:
        return Exit::failed;
    case SignatureVerdict::refused:
        break;
    }
    return Exit::refused;
}

void tellSigner(TextOutput& out, const std::string& number, const Judged& judged, const SignedReader::Signer& signer,
                const SMime::Explanation* explanation, bool trustAsked) {
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

void tell(const SignedReader& message, const std::vector<Judged>& judged, const SMime::Diagnosis& diagnosis,
          const std::string& body, bool trustAsked) {
    const auto& signers = message.signers();
    TextOutput out;
    for (std::size_t at = 0; at != signers.size(); ++at)
        tellSigner(out, std::to_string(at + 1), judged[at], signers[at], explanationOf(diagnosis, at), trustAsked);
    if (!diagnosis.notLooked.empty())
        out.line("why it is refused was not looked into everywhere: " + diagnosis.notLooked);
    if (signers.empty()) {
        out.line(message.certificates().empty() ? "no signer"
                                                : "no signer: the structure holds certificates alone, which norvcrypt "
                                                  "inspect shows");
        out.flush();
        return;
    }
    out.line(Norvane::escapeForDisplay(body));
    if (!trustAsked)
        out.line("Trust in the certificates was not checked: a good signature does not tell who signed.");
    for (std::size_t at = 0; at != signers.size(); ++at)
        out.line("details of signer " + std::to_string(at + 1) + ": " + detailsText(signers[at]));
    out.flush();
}

void tellJson(const SignedReader& message, const std::vector<Judged>& judged, const SMime::Diagnosis& diagnosis,
              const VerifyOptions& options, const std::optional<JudgedBody>& body,
              const std::optional<TrustJudge>& judge) {
    Description facts{{"verdict", verdictName(verdictOf(judged))}};
    if (body) {
        facts["body"] = {{"file", options.embedded ? options.signature : options.in.value_or("-")},
                         {"embedded", options.embedded},
                         {"length", body->length}};
        if (body->isContent)
            facts["body"]["isContent"] = *body->isContent;
    }
    facts["trustChecked"] = judge.has_value();
    facts["signers"] = Description::array();
    for (std::size_t at = 0; at != judged.size(); ++at) {
        Description signer = signerFacts(judged[at].result, message.signers()[at]);
        if (judged[at].trust)
            signer["trust"] = trustFacts(*judged[at].trust);
        if (const SMime::Explanation* const explanation = explanationOf(diagnosis, at))
            signer["explanation"] = explanationFacts(*explanation);
        facts["signers"].push_back(std::move(signer));
    }
    if (!diagnosis.notLooked.empty())
        facts["notLooked"] = diagnosis.notLooked;
    facts["problems"] = judge ? Description(judge->problems()) : Description::array();
    TextOutput out;
    out.text(asJson(facts));
    out.flush();
}

/// What is asked, and what answers it.
struct Question {
    const VerifyOptions& options;
    const SignerCertificates& certificates;
    const std::optional<TrustJudge>& judge;
    StructureFile& file;
    std::optional<RepeatableBody> detached{};
};

SignatureVerdict answer(Question& question, const SignedReader& message, const std::optional<JudgedBody>& body) {
    std::vector<Judged> judged;
    SMime::Diagnosis diagnosis;
    if (body) {
        const std::vector<SignatureResult> results = judgeSigners(message, *body, question.certificates);
        judged = withTrust(message, results, question.judge, question.certificates);
        if (verdictOf(judged) != SignatureVerdict::good)
            needOlderAlgorithms(); // all is tried that may tell why
        diagnosis = diagnosisOf(message, question.file, question.detached ? &*question.detached : nullptr, results,
                                question.certificates);
    }
    if (question.options.trust->json()) {
        tellJson(message, judged, diagnosis, question.options, body, question.judge);
    } else {
        if (question.judge)
            tellUnused(*question.judge);
        tell(message, judged, diagnosis, body ? bodyText(*body, question.options) : "", question.judge.has_value());
    }
    return verdictOf(judged);
}

/// Whether a body may come through standard input, which is not passed over because a file of signatures says to be a mail.
bool hasStandardInput() {
    struct stat status {};
    if (fstat(STDIN_FILENO, &status) != 0)
        return false;
    if (S_ISREG(status.st_mode))
        return lseek(STDIN_FILENO, 0, SEEK_CUR) < status.st_size;
    return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
}

/// Whether what is to be judged begins as a mail does. Where it comes from standard input, nothing else can.
bool isMail(const std::string& path, Inputs& inputs) {
    return (path == "-" || !hasStandardInput()) && looksLikeMail(inputs.start(path, 65536));
}

/// Whether nothing but one structure is read that names the algorithms of today, so that what OpenSSL keeps for older ones, a
/// tenth of a short run to load, is not asked for. Only what lies there as a whole can be looked through before.
bool needsNothingOld(const VerifyOptions& options, Inputs& inputs) {
    constexpr unsigned int mostLookedThrough = 16384;
    constexpr unsigned char sequence = 0x30;
    constexpr unsigned char longLength = 0x80; // no text has such an octet there
    if (options.signature == "-" || options.trust->asked() || options.certificate || options.store)
        return false;
    const Norvane::Buffer start = inputs.start(options.signature, mostLookedThrough);
    return start.length() > 1 && start.length() < mostLookedThrough && start.data()[0] == sequence &&
           start.data()[1] >= longLength && !mayNameLegacyDigest(start);
}

Exit verify(const VerifyOptions& options) {
    Inputs inputs;
    if (!needsNothingOld(options, inputs))
        needOlderAlgorithms();
    std::optional<TrustJudge> judge;
    if (options.trust->asked())
        judge.emplace(options.trust->request(), inputs);
    SignerCertificates certificates;
    if (options.certificate)
        certificates.given = readCertificates(inputs, *options.certificate);
    if (options.store)
        certificates.ofStore = certificatesOfStore(*options.store, inputs);
    if (!options.in && !options.embedded && isMail(options.signature, inputs))
        return verifyMail(options.signature, inputs, judge, certificates, options.trust->json());
    if (options.out == "-")
        throw Failure("the verdict goes to standard output: give --out a file for the content");
    std::optional<ContentFile> content;
    if (options.out)
        content.emplace(*options.out, inputs);
    Progress progress("verifying");
    StructureFile file(inputs, options.signature, options.embedded ? &progress : nullptr);
    if (options.embedded)
        file.readOnce();
    Question question{options, certificates, judge, file};
    return reading(file, [&] {
        SignedReader message(file.structure());
        if (!message.isDetached())
            file.readOnce();
        if (message.isDetached()) {
            file.requireEnd();
            if (message.signers().empty())
                return exitOf(answer(question, message, std::nullopt));
        }
        checkBody(options, message.isDetached());
        const JudgedBody body = passBody(message, options, inputs, progress, content, question.detached);
        if (!message.isDetached())
            file.requireEnd();
        progress.clear();
        const Exit exit =
            exitOf(answer(question, message, message.signers().empty() ? std::nullopt : std::optional(body)));
        if (content && exit == Exit::good) {
            content->body.release();
            content->file.commit();
        }
        return exit;
    });
}

} // namespace

void addVerify(Command& commands, Action& action) {
    auto options = std::make_shared<VerifyOptions>();
    Command* command = commands.command(
        "verify", "Verifies every signature of a CMS structure; trust in the certificates is checked with --ca");
    command
        ->option("--signature", options->signature,
                 "The structure: DER, BER, PEM, base64, the part of a mail that it came in; or a whole mail, which is "
                 "judged as norvcrypt smime verify does. \"-\" is standard input")
        ->typeName("SIG.p7s")
        ->required();
    command
        ->option("--cert", options->certificate,
                 "Certificates to verify with, instead of those in the structure; each signer takes the one that it "
                 "names")
        ->typeName("FILE");
    command
        ->option(
            "--store", options->store,
            "A store: its certificates are those of signers that neither the structure nor --cert has one for; when "
            "a signature does not fit, it is told whether it is by the key of one of them")
        ->typeName("DIR");
    Option* body =
        command
            ->option(
                "--in", options->in,
                "The body; \"-\", as without it, is standard input. A content in the structure must be equal to it")
            ->typeName("BODY");
    Option* embedded =
        command
            ->flag("--embedded", options->embedded,
                   "Judge the content that the structure carries; one that carries any needs this or --in")
            ->excludes(body);
    command
        ->option("--out", options->out,
                 "The content that the structure carries, written only when every signature is good")
        ->typeName("BODY")
        ->needs(embedded);
    options->trust = std::make_unique<TrustOptions>(*command, Trust::Purpose::sign, TrustOptions::Anchors::optional);
    command->note(
        "Structures and bodies may have any size. When a signature does not fit the body, it is tried what relays do "
        "to "
        "bodies, and said what made it so; it stays refused.\n"
        "Exit code: 0 every signature is good (and with --ca, every signer is believed), 1 one is not, 2 an "
        "algorithm is not supported, which is named, or there is nothing to judge.");
    command->example(
        "norvcrypt verify --signature message.p7s --in message.eml --ca root.pem --from alice@example.org");
    command->example("norvcrypt verify --signature message.p7s --in message-changed.eml # exit code 1");
    command->whenChosen([options, &action] { action = [options] { return verify(*options); }; });
}

} // namespace norvcrypt
