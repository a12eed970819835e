#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <list>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto;

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: tour_trust ROOTS INTERMEDIATES CERTIFICATE\n";
        return 2;
    }
    initialize();
    bool accepted = false;
    try {
        const auto material = std::make_shared<Trust::Material>();
        material->addAnchors(argv[1]);
        std::list<NVX509::RefCertificate> between;
        NVX509::CertificateFactory().read(std::string(argv[2]), between);
        std::list<NVX509::RefCertificate> judged;
        NVX509::CertificateFactory().read(std::string(argv[3]), judged);
        between.remove_if([](const auto& one) { return one.isNull(); });

        const Trust::Verdict verdict = Trust::Verifier(material).judge(judged.front(), between, {}, Trust::Options());
        accepted = verdict.accepted;
        std::cout << (accepted ? "accepted" : "refused") << '\n';
        for (const Trust::Reason& reason : verdict.reasons) {
            std::cout << Trust::nameOf(reason.code) << '\n'; // all of them, not the first alone
        }
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    cleanup();
    return accepted ? 0 : 1;
}
