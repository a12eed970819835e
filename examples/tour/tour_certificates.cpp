#include <norvcrypto/Certificate.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <list>

using namespace Norvane;
using namespace Norvane::Crypto;

int main(int argc, char* argv[]) {
    initialize(); // once, before anything else
    for (int i = 1; i < argc; ++i) {
        std::list<NVX509::RefCertificate> certificates;
        NVX509::CertificateFactory().read(std::string(argv[i]), certificates); // PEM or DER, all of a file
        for (const auto& certificate : certificates) {
            if (certificate.isNull()) {
                continue; // what follows the last certificate of PEM text
            }
            std::cout << displayName(certificate->subject()) << ", issued by " << displayName(certificate->issuer())
                      << (certificate->isCACert() ? ", an authority" : "") << '\n';
        }
    }
    cleanup();
}
