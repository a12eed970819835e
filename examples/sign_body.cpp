// Signs a body: sign_body CERTIFICATE KEY BODY prints the detached CMS signature as base64.

#include <norvcmsg/File.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <iostream>

using namespace Norvane;
using namespace Norvane::Crypto;

int main(int argc, char* argv[]) {
    initialize(); // once, before anything else
    try {
        std::list<NVX509::RefCertificate> certificates;
        NVX509::CertificateFactory().read(std::string(argc == 4 ? argv[1] : ""), certificates);
        if (certificates.empty() || certificates.front().isNull()) {
            std::cerr << "usage: sign_body CERTIFICATE KEY BODY\n";
            return 2;
        }
        Buffer pem;
        FileMediaIn(File::Path(argv[2])).read(pem, 0);
        RefKey key(Key::PRIVATE_KEY);
        key->readPEM(pem);

        MemoryMediaOut signature; // the body itself is sent beside it
        CMS::SignerMediaOut signer(Hasher::SHA256, NVX509::KeyCertificatePair(key, certificates.front()));
        signer.attach(signature);
        FileMediaIn(File::Path(argv[3])).write(signer);
        signer.end();
        std::cout << signature.content().toBase64String() << '\n';
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
        return 1;
    }
    cleanup();
    return std::cout.flush() ? 0 : 1; // a full disk
}
