// Checks a detached signature over what comes through a pipe, of any size, in constant memory:
//
//     produce-the-body | verify_stream certificate.pem body.p7s
//
// Exits with 0 when there is a signer and each of them signed this body with the certificate's key. Whether to trust
// the certificate is another question, which is not asked here.

#include <norvcmsg/File.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <array>
#include <cstdio>
#include <list>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

NVX509::RefCertificate readCertificate(const std::string& path) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(path, certificates);
    if (certificates.empty()) {
        throw Exception("readCertificate", 4, nullptr, 0).stringParameter(path + " is not there");
    }
    return certificates.front();
}

bool verifyStandardInput(const NVX509::RefCertificate& certificate, const std::string& signatureFile) {
    FileMediaIn file{File::Path(signatureFile)};
    const CMS::CMSVerifier verifier(file);
    const CMS::SignedData data = CMS::signedData(verifier.contentInfo());
    std::list<VerifierMediaOut> digests; // one for each signer, so that the body is read once
    for (const CMS::SignerInfo& signer : data.signerInfo()) {
        digests.push_back(verifier.verifierMediaOut(signer));
    }
    static std::array<unsigned char, 65536> piece;
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), stdin)) {
        for (VerifierMediaOut& digest : digests) {
            digest.write(piece.data(), static_cast<unsigned int>(length));
        }
    }
    bool good = !digests.empty() && std::ferror(stdin) == 0;
    for (const CMS::SignerInfo& signer : data.signerInfo()) {
        good = verifier.isValid(digests.front(), signer, certificate) && good;
        digests.pop_front();
    }
    return good;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: verify_stream certificate.pem body.p7s <body\n", stderr);
        return 2;
    }
    initialize();
    bool good = false;
    try {
        good = verifyStandardInput(readCertificate(arguments[1]), arguments[2]);
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
        return 2;
    }
    cleanup();
    std::puts(good ? "good" : "bad");
    return good ? 0 : 1;
}
