// Encrypts a body for one recipient or several, as CMS enveloped data in DER:
//
//     encrypt_body body body.p7m bob.pem carol.pem
//     openssl cms -decrypt -inform DER -in body.p7m -recip bob.pem -inkey bob.key

#include <norvcmsg/File.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/Crypto.h>

#include <filesystem>
#include <iostream>
#include <system_error>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// The certificates of a file, DER or PEM.
std::list<NVX509::RefCertificate> readCertificates(const std::string& path) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(path, certificates);
    certificates.remove_if([](const NVX509::RefCertificate& one) { return one.isNull(); });
    if (certificates.empty()) {
        throw Exception("readCertificates", 4, nullptr, 0).stringParameter("no certificate in " + path);
    }
    return certificates;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc < 4) {
        std::cerr << "usage: encrypt_body BODY MESSAGE CERTIFICATE...\n";
        return 2;
    }
    std::error_code none;
    if (std::filesystem::equivalent(argv[1], argv[2], none)) { // opened for writing, it is empty at once
        std::cerr << "encrypt_body: BODY and MESSAGE are one file\n";
        return 2;
    }
    initialize(); // once, before anything else
    try {
        // Whom to trust with the body is decided before: nothing but the kind of key is asked of the certificates here.
        std::list<NVX509::RefCertificate> recipients;
        for (int i = 3; i < argc; ++i) {
            recipients.splice(recipients.end(), readCertificates(argv[i]));
        }
        FileMediaIn body{File::Path(argv[1])};
        CMS::EncrypterMediaOut encrypter(AES_256_CBC, recipients);
        FileMediaOut message{File::Path(argv[2])};
        encrypter.attach(message);
        body.write(encrypter);
        encrypter.end(); // also ends the file, which tells whether all of it was written
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
        return 1;
    }
    cleanup();
}
