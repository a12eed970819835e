#include <norvcmsg/File.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/Crypto.h>

#include <iostream>

using namespace Norvane;
using namespace Norvane::Crypto;

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: tour_envelope STORE ADDRESS BODY\n";
        return 2;
    }
    initialize();
    int status = 1;
    try {
        const NVX509::RefDirectoryKeyStore directory(argv[1]); // a folder for each identity
        NVX509::RefKeyStore keys(true);
        keys->add(directory.plugin());

        const auto address = EmailAddress::rfc5321Parse(argv[2], true);
        const NVX509::RefCertificate recipient = keys->findEncryptionCertificate(address);
        if (recipient.isNull()) {
            std::cout << "nobody has a certificate for " << argv[2] << '\n';
        } else {
            CMS::EnvelopeOptions options;
            options.cipher = CMS::ContentCipher::aes256Gcm; // nothing comes out that was changed on its way
            MemoryMediaOut sealed;
            CMS::EnvelopeWriter writer({CMS::EnvelopeRecipient(recipient)}, options);
            writer.attach(sealed);
            FileMediaIn(File::Path(argv[3])).write(writer);
            writer.end();

            CMS::EnvelopeReader message{MemoryMediaIn(sealed.content())};
            if (message.isAuthenticated() && message.open(CMS::KeyStoreLookup(keys))) { // by issuer and serial number
                MemoryMediaOut clear;
                message.write(clear);
                std::cout << "opened, " << clear.content().length() << " bytes\n";
                status = 0;
            }
        }
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    cleanup();
    return status;
}
