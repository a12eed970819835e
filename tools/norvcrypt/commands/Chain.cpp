#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "read/CertificateFile.h"
#include "show/TextAndJson.h"
#include "trust/TrustJudge.h"
#include "trust/TrustOptions.h"
#include "trust/TrustReport.h"

#include <norvcmsg/Escape.h>

#include <memory>
#include <string>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace Trust = Norvane::Crypto::Trust;

namespace {

Exit chain(const std::string& file, const TrustOptions& options) {
    const TrustRequest request = options.request();
    if (request.options.atSigningTime)
        throw Failure("a certificate states no signing time: give --at a moment");
    Inputs inputs;
    const std::list<NVX509::RefCertificate> certificates = readCertificates(inputs, file);
    const TrustJudge judge(request, inputs);
    const std::list<NVX509::RefCertificate> others(std::next(certificates.begin()), certificates.end());
    const TrustAnswer answer = judge.judge(certificates.front(), others, {});
    TextOutput out;
    if (options.json()) {
        out.text(asJson({{"file", file}, {"trust", trustFacts(answer)}, {"problems", judge.problems()}}));
    } else {
        const Colours colours;
        tellUnused(judge);
        out.line(Norvane::escapeForDisplay(inputName(file)) + ": " + trustSummary(answer, colours));
        tellChain(out, answer, colours);
    }
    out.flush();
    return answer.accepted() ? Exit::good : Exit::refused;
}

} // namespace

void addChain(Command& commands, Action& action) {
    Command* command = commands.command(
        "chain", "Shows the chain from a certificate up to whom you believe, and where and why it breaks");
    auto file = std::make_shared<std::string>();
    command
        ->option(
            "CERT", *file,
            "The certificate, DER or PEM, \"-\" is standard input; others behind it in the file help to find a way")
        ->required();
    auto options = std::make_shared<TrustOptions>(*command, Trust::Purpose::any, TrustOptions::Anchors::required);
    command->note("Exit code: 0 the certificate is accepted, 1 it is refused, 2 that could not be judged.");
    command->example("norvcrypt chain alice.pem --ca root.pem --untrusted ca.pem --crl ca.crl --purpose sign");
    command->example("norvcrypt chain alice.pem --ca root.pem # exit code 1: nobody knows the authority in between");
    command->whenChosen([file, options, &action] { action = [file, options] { return chain(*file, *options); }; });
}

} // namespace norvcrypt
