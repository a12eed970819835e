// Checks a detached signature over what comes through a pipe, of any size, in constant memory:
//
//     produce-the-body | verify_stream certificate.pem body.p7s
//
// Exits with 0 when there is a signer and each of them signed this body with the certificate's key, with 1 when the
// answer is no, and with 2 when there is none: an algorithm that is not supported, more signers than are judged, a file
// that is no structure. Whether to trust the certificate is another question, which is not asked here.

#include <norvcmsg/File.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/Crypto.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <list>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

std::list<NVX509::RefCertificate> readCertificates(const std::string& path) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(path, certificates);
    if (certificates.empty()) {
        throw Exception("readCertificates", 4, nullptr, 0).stringParameter(path + " is not there");
    }
    return certificates;
}

/// Throws when the body cannot be read to its end.
CMS::SignatureReport verifyStandardInput(const std::list<NVX509::RefCertificate>& certificates,
                                         const std::string& signatureFile) {
    FileMediaIn file{File::Path(signatureFile)};
    CMS::SignatureVerifier verifier{CMS::RefContentInfo(file)};
    static std::array<unsigned char, 65536> piece;
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), stdin)) {
        verifier.write(piece.data(), length);
    }
    if (std::ferror(stdin) != 0) {
        throw Exception("verifyStandardInput", 4, nullptr, 0).stringParameter("cannot read standard input");
    }
    return verifier.report(certificates);
}

int exitCodeOf(const CMS::SignatureReport& report) {
    const auto has = [&report](CMS::SignatureVerdict verdict) {
        return std::any_of(report.signers.begin(), report.signers.end(),
                           [verdict](const auto& signer) { return signer.verdict == verdict; });
    };
    if (report.allGood()) {
        return 0;
    }
    return has(CMS::SignatureVerdict::refused) || report.signers.empty() ? 1 : 2;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: verify_stream certificate.pem body.p7s <body\n", stderr);
        return 2;
    }
    initialize();
    int code = 2;
    try {
        const CMS::SignatureReport report = verifyStandardInput(readCertificates(arguments[1]), arguments[2]);
        for (const CMS::SignatureResult& signer : report.signers) {
            std::printf("%s%s%s\n", CMS::textOf(signer.reason), signer.algorithm.empty() ? "" : ": ",
                        signer.algorithm.c_str());
        }
        code = exitCodeOf(report);
        std::printf("%s, %llu bytes\n",
                    code == 0   ? "good"
                    : code == 1 ? "bad"
                                : "not judged",
                    static_cast<unsigned long long>(report.bodyLength));
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
    }
    cleanup();
    return code;
}
