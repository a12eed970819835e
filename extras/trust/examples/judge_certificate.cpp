// Judges the first certificate of a file, with the others in it as those that came along, and says why.
//
//     judge_certificate ROOTS LISTS CERTIFICATES [ADDRESS]
//
// ROOTS and LISTS are files or directories; with ADDRESS, whether the certificate is that of this sender. Ends with 0 when the
// certificate is believed, 1 when it is not, 2 when it could not be judged.

#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustSender.h>

#include <norvcmsg/Escape.h>
#include <norvcmsg/Exception.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <list>
#include <memory>
#include <string>

namespace {

using namespace Norvane::Crypto;

void tell(const Trust::Reason& reason) {
    std::cout << reason.depth << ' ' << Trust::nameOf(reason.code) << ": " << reason.text << "\n    " << reason.advice
              << '\n';
}

int judge(const std::string& roots, const std::string& lists, const std::string& file, const std::string& address) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchors(roots);
    material->addLists(lists);
    for (const auto& problem : material->problems()) {
        std::cerr << Norvane::escapeForDisplay(problem.path) << ' ' << problem.reason << '\n';
    }
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(file, certificates);
    certificates.remove_if([](const auto& one) { return one.isNull(); });
    if (certificates.empty()) {
        std::cerr << "no certificate in " << Norvane::escapeForDisplay(file) << '\n';
        return 2;
    }
    Trust::Options options;
    options.revocation = Trust::Revocation::available;
    const Trust::Verifier verifier(material);
    const Trust::Verdict verdict = verifier.judge(certificates.front(), certificates, {}, options);
    for (const auto& reason : verdict.reasons) {
        tell(reason);
    }
    for (const auto& note : verdict.notes) {
        std::cout << "note: ";
        tell(note);
    }
    bool matches = true;
    if (!address.empty()) {
        const Trust::SenderMatch match = Trust::matchSender(certificates.front(), {address});
        for (const auto& reason : match.reasons) {
            tell(reason);
        }
        matches = match.matches();
    }
    std::cout << (verdict.accepted && matches ? "accepted" : "refused") << '\n';
    return verdict.accepted && matches ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::cerr << "usage: judge_certificate ROOTS LISTS CERTIFICATES [ADDRESS]\n";
        return 2;
    }
    initialize();
    int answer = 2;
    try {
        answer = judge(argv[1], argv[2], argv[3], argc == 5 ? argv[4] : "");
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
    }
    cleanup();
    return answer;
}
