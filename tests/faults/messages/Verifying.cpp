#include "Operations.h"

#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSVerification.h>

namespace faultsofmessages {

using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

Answer answerOf(const CMS::SignatureReport& report) {
    const faults::Pause pause;
    if (report.signers.empty()) {
        return {Answer::refused, "no signer"};
    }
    const CMS::SignatureResult& result = report.signers.front();
    if (result.verdict == SignatureVerdict::good) {
        return result.certificate.isNull() ? Answer{Answer::wrong, "no certificate"} : Answer{Answer::done};
    }
    return {result.verdict == SignatureVerdict::unsupported ? Answer::undecided : Answer::refused,
            CMS::textOf(result.reason) + (result.algorithm.empty() ? "" : " " + result.algorithm)};
}

} // namespace

Operation verifiesAsPrescribed(const std::string& name, const Bytes& structure, const Bytes& over, bool bad) {
    const auto certificate = certificateOf(alice());
    return {.name = "CMSVerifier " + name,
            .act =
                [=] {
                    Norvane::MediaIn message = faults::source(textOf(structure));
                    const CMS::CMSVerifier verifier(message);
                    const auto signers = CMS::signedData(verifier.contentInfo()).signerInfo();
                    if (signers.empty()) {
                        return Answer{Answer::refused, "no signer"};
                    }
                    Norvane::MediaIn in = faults::source(textOf(over));
                    return verifier.isValid(in, signers.front(), certificate) ? Answer{Answer::done}
                                                                              : Answer{Answer::refused, "not valid"};
                },
            .mustRefuse = bad,
            .mayRefuse = true};
}

Operation verifies(const std::string& name, const Bytes& structure, const Bytes& over, bool bad) {
    return {.name = "verifySignatures " + name,
            .act =
                [=] {
                    Norvane::MediaIn message = faults::source(textOf(structure));
                    const CMS::RefContentInfo content(message);
                    Norvane::MediaIn in = faults::source(textOf(over));
                    return answerOf(CMS::verifySignatures(content, in));
                },
            .mustRefuse = bad};
}

Operation readsSigned(const std::string& name, const Bytes& structure, const std::string& over, bool bad) {
    return {.name = "SignedReader " + name,
            .act =
                [=] {
                    Target target;
                    SignedReader reader(faults::source(textOf(structure)));
                    if (reader.isDetached()) {
                        Norvane::MediaOut digest = reader.digest();
                        Norvane::MediaIn in = faults::source(over);
                        in.write(digest);
                    } else {
                        reader.write(target);
                        const faults::Pause pause;
                        if (!bad && target.content() != over) {
                            return Answer{Answer::wrong, "another content"};
                        }
                    }
                    return answerOf(reader.report());
                },
            .mustRefuse = bad};
}

} // namespace faultsofmessages
