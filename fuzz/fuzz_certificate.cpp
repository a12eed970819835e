// Certificates, DER or PEM: every accessor, then written and read again.
#include "Driver.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Certificate.h>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <ctime>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;

namespace {

/// OpenSSL takes parameters with the universal tag 0, writes them as an end of contents, and does not read that.
bool isReadByOpenssl(const Buffer& der) {
    const unsigned char* at = der.data();
    X509* const certificate = d2i_X509(nullptr, &at, static_cast<long>(der.length()));
    X509_free(certificate);
    ERR_clear_error();
    return certificate != nullptr;
}

void look(const RefCertificate& certificate) {
    certificate->warm();
    if (!isDisplayable(displayName(certificate->subject())) || !isDisplayable(displayName(certificate->issuer()))) {
        std::abort();
    }
    for (const GeneralName& name : certificate->subjectAlternativeName()
                                       ? certificate->subjectAlternativeName()->names()
                                       : std::list<GeneralName>()) {
        static_cast<void>(name.dn().asString());
        static_cast<void>(name.uri());
        static_cast<void>(name.ipAddress());
        static_cast<void>(name.emailAddress());
    }
    static_cast<void>(certificate->validityPeriod().valid(std::time(nullptr)));
    static_cast<void>(certificate->issuedBy(certificate, true));
    MemoryMediaOut der;
    certificate->writeDER(der);
    const RefCertificate again = CertificateFactory().readDER(der.content());
    if (again.isNull() ? isReadByOpenssl(der.content()) : !(*again == *certificate)) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        std::list<RefCertificate> certificates;
        CertificateFactory().read(input, certificates);
        for (const RefCertificate& certificate : certificates) {
            if (certificate) {
                look(certificate);
            }
        }
    });
}
