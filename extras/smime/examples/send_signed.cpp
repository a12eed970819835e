// Signs a mail for its sender, encrypts it when every recipient has a certificate in the directory, and writes what is to be
// sent:
//
//     send_signed /etc/mail/identities mail.eml >sent.eml

#include <norvcmsg/File.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto/Crypto.h>

#include <algorithm>
#include <iostream>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

bool allHaveCertificates(const SMime::Correspondents& people, const NVX509::RefKeyStore& keys) {
    return !people.to.empty() && people.noAddresses.empty() &&
           std::all_of(people.to.begin(), people.to.end(), [&keys](const EmailAddress& address) {
               return !keys->findEncryptionCertificate(address).isNull();
           });
}

void send(const NVX509::RefKeyStore& keys, const File::Path& path, MediaOut& out) {
    SMime::SignOptions signing;
    signing.keys = keys; // the sender is the one of the field From
    SMime::EncryptOptions encrypting;
    encrypting.keys = keys;
    encrypting.addressesOfMessage = true;
    encrypting.sender = true; // who wants to read the copy in the folder of sent mail
    SMime::WriteOptions how;
    how.protectHeader = true;

    const FileMediaIn message(path);
    if (allHaveCertificates(SMime::correspondentsOf(FileMediaIn(path)), keys)) {
        SMime::signAndEncrypt(message, signing, encrypting, out, how);
    } else {
        SMime::sign(message, signing, out, how);
    }
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: send_signed DIRECTORY MAIL >SENT\n";
        return 2;
    }
    initialize(); // once, before anything else
    int status = 1;
    try {
        const NVX509::RefDirectoryKeyStore directory(argv[1]);
        NVX509::RefKeyStore keys(true);
        keys->add(directory.plugin());
        FileMediaOut out(File::Path("/dev/stdout"));
        send(keys, File::Path(argv[2]), out);
        status = 0;
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    cleanup();
    return status;
}
