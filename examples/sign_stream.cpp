// Signs what comes through a pipe, of any size, in constant memory:
//
//     produce-a-body | tee body | sign_stream certificate.pem key.pem >body.p7s
//     openssl cms -verify -binary -inform DER -in body.p7s -content body -CAfile authority.pem -out /dev/null

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

/// The certificate and key of two PEM files.
NVX509::KeyCertificatePair readPair(const std::string& certificateFile, const std::string& keyFile) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(certificateFile, certificates);
    if (certificates.empty()) {
        throw Exception("readPair", 4, nullptr, 0).stringParameter(certificateFile + " is not there");
    }
    FileMediaIn file{File::Path(keyFile)};
    Buffer pem;
    file.read(pem, 0);
    pem.protect();
    RefKey key(Key::PRIVATE_KEY);
    key->readPEM(pem);
    return NVX509::KeyCertificatePair(key, certificates.front());
}

void signStandardInput(const NVX509::KeyCertificatePair& pair) {
    MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(signature);
    static std::array<unsigned char, 65536> piece;
    while (const std::size_t length = std::fread(piece.data(), 1, piece.size(), stdin)) {
        signer.write(piece.data(), static_cast<unsigned int>(length));
    }
    if (std::ferror(stdin) != 0) {
        throw Exception("signStandardInput", 4, nullptr, 0).stringParameter("standard input cannot be read");
    }
    signer.end();
    std::fwrite(signature.content().data(), 1, signature.content().length(), stdout);
}

} // namespace

int main(int count, char** arguments) {
    if (count != 3) {
        std::fputs("usage: sign_stream certificate.pem key.pem <body >body.p7s\n", stderr);
        return 2;
    }
    initialize();
    try {
        signStandardInput(readPair(arguments[1], arguments[2]));
    } catch (const Exception& failure) {
        std::fprintf(stderr, "%s\n", failure.asString().c_str());
        return 2;
    }
    cleanup();
    return std::fflush(stdout) == 0 ? 0 : 2;
}
