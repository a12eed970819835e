#include "cms/Judging.h"
#include "commands/Command.h"
#include "commands/SmimeCommands.h"
#include "commands/VerifyReport.h"
#include "files/HeldBody.h"
#include "files/Input.h"
#include "files/Output.h"
#include "files/RepeatableBody.h"
#include "identities/Store.h"
#include "many/ManyOptions.h"
#include "openssl/Start.h"
#include "read/CertificateFile.h"
#include "read/StructureFile.h"
#include "recognise/Wrapped.h"
#include "show/SignatureReport.h"
#include "show/TextAndJson.h"
#include "trust/TrustJudge.h"
#include "trust/TrustOptions.h"
#include "trust/TrustReport.h"

#include <norvcrypto/CMSSignedReader.h>

#include <algorithm>
#include <cctype>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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
    std::unique_ptr<ManyOptions> signatures;
    std::optional<std::string> certificate;
    std::optional<std::string> store;
    std::optional<std::string> in;
    std::optional<std::string> bodies;
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
void checkBody(const Subject& subject, bool isDetached) {
    if (subject.embedded && isDetached)
        throw Failure(inputName(subject.signature) +
                      " carries no content, the signature is detached: give its body with --in");
    if (!subject.embedded && isDetached && !subject.noBody.empty())
        throw Failure("the signature in " + subject.signature +
                      " is detached, and there is no body: " + subject.noBody);
    if (!subject.embedded && !subject.body && !isDetached)
        throw Failure(inputName(subject.signature) +
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
JudgedBody passBody(SignedReader& message, const Subject& subject, Inputs& inputs, Progress* progress,
                    std::optional<ContentFile>& content, std::optional<RepeatableBody>& detached) {
    if (subject.embedded) {
        Norvane::MediaOut nowhere = Norvane::NullMediaOut();
        message.write(content ? content->body.sink() : nowhere);
        return {message.bodyLength(), std::nullopt};
    }
    const std::string path = subject.body.value_or("-");
    if (!message.isDetached())
        return compare(message, inputs.open(path, progress));
    Norvane::MediaOut digest = message.digest();
    detached.emplace(inputs, path, SMime::DiagnosisBudget().body, progress);
    detached->write(digest);
    return {message.bodyLength(), std::nullopt};
}

/// Who is believed and which certificates there are: what is read once.
struct Judging {
    std::optional<TrustJudge> judge;
    SignerCertificates certificates;

    Judging(const VerifyOptions& options, Inputs& inputs) {
        if (options.trust->asked())
            judge.emplace(options.trust->request(), inputs);
        if (options.certificate)
            certificates.given = readCertificates(inputs, *options.certificate);
        if (options.store)
            certificates.ofStore = certificatesOfStore(*options.store, inputs);
        if (judge)
            judge->addIntermediates(certificates.ofStore);
    }

    [[nodiscard]] const TrustJudge* judgeOrNull() const { return judge ? &*judge : nullptr; }
    /// Who is to be believed is asked of whoever signed, and nobody else.
    [[nodiscard]] std::vector<JudgedSigner> withTrust(const SignedReader& message,
                                                      const std::vector<SignatureResult>& results) const {
        std::vector<JudgedSigner> judged;
        for (const SignatureResult& result : results) {
            const SignedReader::Signer& signer = message.signers()[judged.size()];
            judged.push_back({result, std::nullopt});
            if (!judge || result.verdict != SignatureVerdict::good)
                continue;
            std::list<NVX509::RefCertificate> others = message.certificates();
            if (certificates.given)
                others.insert(others.end(), certificates.given->begin(), certificates.given->end());
            judged.back().trust =
                judge->judge(result.certificate, others, message.revocationLists(), signer.signingTime());
        }
        return judged;
    }
    [[nodiscard]] JudgedStructure answer(const SignedReader& message, StructureFile& file,
                                         const std::optional<JudgedBody>& body,
                                         std::optional<RepeatableBody>& detached) const {
        JudgedStructure judged{.message = message};
        if (message.signers().empty() || !body)
            return judged;
        const std::vector<SignatureResult> results = judgeSigners(message, *body, certificates);
        judged.signers = withTrust(message, results);
        if (judged.verdict() != SignatureVerdict::good)
            needOlderAlgorithms(); // all is tried that may tell why
        judged.diagnosis = diagnosisOf(message, file, detached ? &*detached : nullptr, results, certificates);
        judged.body = body;
        return judged;
    }
};

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

/// Hands the verdict to `tell`; the content is written when every signature is good.
/// \param out the file for it; nothing: it is not written
Exit judge(const Subject& subject, const Judging& judging, const std::optional<std::string>& out, Inputs& inputs,
           Progress* progress, const std::function<void(const JudgedStructure&)>& tell) {
    std::optional<ContentFile> content;
    if (out)
        content.emplace(*out, inputs);
    StructureFile file(inputs, subject.signature, subject.embedded ? progress : nullptr);
    if (subject.embedded)
        file.readOnce();
    return reading(file, [&] {
        SignedReader message(file.structure());
        std::optional<RepeatableBody> detached;
        if (!message.isDetached())
            file.readOnce();
        if (message.isDetached()) {
            file.requireEnd();
            if (message.signers().empty()) {
                tell({.message = message});
                return Exit::refused;
            }
        }
        checkBody(subject, message.isDetached());
        const JudgedBody body = passBody(message, subject, inputs, progress, content, detached);
        if (!message.isDetached())
            file.requireEnd();
        if (progress != nullptr)
            progress->expect(0); // how often a body is read again for a diagnosis, nobody knows before
        const JudgedStructure judged = judging.answer(message, file, body, detached);
        if (progress != nullptr)
            progress->clear(); // or the verdict would stand behind a bar
        tell(judged);
        const Exit exit = exitOf(judged.verdict());
        if (content && exit == Exit::good) {
            content->body.release();
            content->file.commit();
        }
        return exit;
    });
}

constexpr std::string_view signatureEnding = ".p7s";

/// In any case of letters, as outputs are named.
bool isNamedAsSignature(const std::string& path) {
    return path.size() >= signatureEnding.size() &&
           std::ranges::equal(path.substr(path.size() - signatureEnding.size()), signatureEnding, {},
                              [](char one) { return std::tolower(static_cast<unsigned char>(one)); });
}

/// The body of one of many signatures: that of --in, the content, or for "NAME.p7s" the file NAME, beside it or in --body-dir.
Subject subjectOf(const std::string& path, const VerifyOptions& options) {
    Subject subject{.signature = path, .body = options.in, .embedded = options.embedded};
    if (options.in || options.embedded)
        return subject;
    if (!isNamedAsSignature(path)) {
        subject.noBody = "its name does not end in .p7s, before which the body's name would stand; give --in";
        return subject;
    }
    std::string body = path.substr(0, path.size() - signatureEnding.size());
    body = options.bodies ? *options.bodies + "/" + body.substr(body.rfind('/') + 1) : fileNamed(body);
    if (access(body.c_str(), F_OK) == 0)
        subject.body = body;
    else
        subject.noBody = body + " is not there";
    return subject;
}

/// A file whose name says that it is the signature of a body is no whole mail, whatever is in it: whoever made it does not
/// choose that the body is not looked at.
Outcome verifyOne(const Item& item, const VerifyOptions& options, const Judging& judging, const MailReading& mails,
                  Inputs& inputs) {
    const Subject subject = subjectOf(item.path, options);
    if (!subject.body && !subject.embedded && !isNamedAsSignature(item.path) &&
        looksLikeMail(inputs.start(item.path, 65536)))
        return verifyOneMail(item, inputs, mails);
    Outcome outcome;
    outcome.exit = judge(subject, judging, item.output.empty() ? std::nullopt : std::optional(item.output), inputs,
                         nullptr, [&](const JudgedStructure& judged) {
                             outcome.verdict = verdictName(judged.verdict());
                             outcome.reason = verdictInOneLine(judged, subject, judging.judge.has_value());
                             if (item.inJson)
                                 outcome.facts = verdictFacts(judged, subject, judging.judgeOrNull());
                         });
    return outcome;
}

Exit verifyMany(const VerifyOptions& options) {
    if (options.in == "-")
        throw Failure("the body of several signatures is no standard input, which can be read only once");
    if (!options.signatures->outDirectory()->empty() && !options.embedded)
        throw Failure("--out-dir is for the contents of structures: give --embedded, too");
    if (options.out)
        throw Failure(outOfMany);
    Inputs shared;
    const Judging judging(options, shared);
    const MailReading mails(judging.certificates, judging.judgeOrNull()); // which prepares certificates to be shared
    if (judging.judge)
        tellUnused(*judging.judge);
    return options.signatures->run(
        shared, options.trust->json(), withoutSignatureEnding, OutputFile::Access::everyone,
        [&](const Item& item, Inputs& inputs) { return verifyOne(item, options, judging, mails, inputs); });
}

/// Whether nothing but one structure is read that names the algorithms of today, so that what OpenSSL keeps for older ones, a
/// tenth of a short run to load, is not asked for. Only what lies there as a whole can be looked through before.
bool needsNothingOld(const VerifyOptions& options, Inputs& inputs) {
    constexpr unsigned int mostLookedThrough = 16384;
    constexpr unsigned char sequence = 0x30;
    constexpr unsigned char longLength = 0x80; // no text has such an octet there
    const std::string signature = options.signatures->one();
    if (signature == "-" || options.trust->asked() || options.certificate || options.store)
        return false;
    const Norvane::Buffer start = inputs.start(signature, mostLookedThrough);
    return start.length() > 1 && start.length() < mostLookedThrough && start.data()[0] == sequence &&
           start.data()[1] >= longLength && !mayNameLegacyDigest(start);
}

Exit verify(const VerifyOptions& options) {
    if (options.signatures->areMany()) {
        needOlderAlgorithms();
        return verifyMany(options);
    }
    Inputs inputs;
    if (!needsNothingOld(options, inputs))
        needOlderAlgorithms();
    const Judging judging(options, inputs);
    const Subject subject{.signature = options.signatures->one(), .body = options.in, .embedded = options.embedded};
    if (!options.in && !options.embedded && isMail(subject.signature, inputs))
        return verifyMail(subject.signature, inputs, judging.judge, judging.certificates, options.trust->json());
    if (options.out == "-")
        throw Failure("the verdict goes to standard output: give --out a file for the content");
    Progress progress("verifying");
    return judge(subject, judging, options.out, inputs, &progress, [&](const JudgedStructure& judged) {
        if (options.trust->json()) {
            TextOutput out;
            out.text(asJson(verdictFacts(judged, subject, judging.judgeOrNull())));
            out.flush();
            return;
        }
        if (judging.judge)
            tellUnused(*judging.judge);
        tellVerdict(judged, subject, judging.judge.has_value());
    });
}

} // namespace

void addVerify(Command& commands, Action& action) {
    auto options = std::make_shared<VerifyOptions>();
    Command* command = commands.command(
        "verify", "Verifies every signature of a CMS structure; trust in the certificates is checked with --ca");
    options->signatures = std::make_unique<ManyOptions>(
        *command, "--signature", "SIG.p7s",
        "The structure: DER, BER, PEM, base64, the part of a mail that it came in; or a whole mail, which is judged as "
        "norvcrypt smime verify does. \"-\" is standard input. Of several a line each is told",
        ManyOptions::Outputs::possible, ManyOptions::Json::ofCommand);
    command
        ->option("--cert", options->certificate,
                 "Certificates to verify with, instead of those in the structure; each signer takes the one that it "
                 "names")
        ->typeName("FILE");
    command
        ->option(
            "--store", options->store,
            "A store: its certificates are those of signers that neither the structure nor --cert has one for; when "
            "a signature does not fit, it is told whether it is by the key of one of them; with --ca they help to find "
            "a "
            "way to a root")
        ->typeName("DIR");
    Option* body =
        command
            ->option(
                "--in", options->in,
                "The body; \"-\", as without it, is standard input. A content in the structure must be equal to it")
            ->typeName("BODY");
    command
        ->option("--body-dir", options->bodies,
                 "The folder with the bodies of several signatures: that of NAME.p7s is NAME; without it, beside it")
        ->typeName("DIR")
        ->excludes(body);
    Option* embedded =
        command
            ->flag("--embedded", options->embedded,
                   "Judge the content that the structure carries; one that carries any needs this or --in")
            ->excludes(body);
    command
        ->option("--out", options->out,
                 "The content that the structure carries, written only when every signature is good")
        ->typeName("BODY")
        ->needs(embedded)
        ->excludes(options->signatures->outDirectory());
    options->trust = std::make_unique<TrustOptions>(*command, Trust::Purpose::sign, TrustOptions::Anchors::optional);
    command->note(
        "Structures and bodies may have any size. When a signature does not fit the body, it is tried what relays do "
        "to "
        "bodies, and said what made it so; it stays refused.\n"
        "Exit code: 0 every signature is good (and with --ca, every signer is believed), 1 one is not, 2 an "
        "algorithm is not supported, which is named, or there is nothing to judge. Of several structures, the worst.");
    command->example(
        "norvcrypt verify --signature message.p7s --in message.eml --ca root.pem --from alice@example.org");
    command->example("norvcrypt verify --signature message.p7s --in message-changed.eml # exit code 1");
    command->example("norvcrypt verify --signature letter-signed.eml letter.eml --ca root.pem # exit code 1");
    command->whenChosen([options, &action] {
        if (!options->signatures->isNamed())
            throw MissingOption("--signature");
        action = [options] { return verify(*options); };
    });
}

} // namespace norvcrypt
