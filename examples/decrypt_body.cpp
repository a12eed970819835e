// Decrypts a body with one key:
//
//     decrypt_body body.p7m body bob.pem bob.key
//
// The clear body waits in a buffer until the message is known to be decrypted. Each recipient that the key is tried for
// starts with an empty one: a sender may put a recipient of his own making before ours, and what comes out for that one
// must be neither delivered nor left in front of the body.

#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// A source of one key. A plug-in of a mail server would look into its own storage instead.
class OneKey : public NVX509::KeyStorePlugin {
public:
    explicit OneKey(const NVX509::KeyCertificatePair& pair) : m_pair(pair) {}

    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) override {
        const bool isOurs = m_pair->certificate->issuer() == issuer && m_pair->certificate->serialNumber() == serial;
        return isOurs ? m_pair : NVX509::KeyCertificatePair(true); // an empty pair: no answer
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& /*address*/) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& /*address*/) override {
        return NVX509::KeyCertificatePair(true);
    }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override {
        return NVX509::KeyCertificatePair(true);
    }

private:
    NVX509::KeyCertificatePair m_pair;
};

NVX509::KeyCertificatePair readPair(const std::string& certificateFile, const std::string& keyFile) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(certificateFile, certificates);
    if (certificates.empty() || certificates.front().isNull()) {
        throw Exception("readPair", 4, nullptr, 0).stringParameter("no certificate in " + certificateFile);
    }
    FileMediaIn file{File::Path(keyFile)};
    Buffer pem;
    pem.protect();
    file.read(pem, 0);
    RefKey key(Key::PRIVATE_KEY);
    key->readPEM(pem);
    return NVX509::KeyCertificatePair(key, certificates.front());
}

/// What the key did not do, in words for its holder. Nothing of it goes back to the sender, and the log and this text tell
/// no more than that it failed: see the header.
std::string reasonOf(const CMS::DecrypterMediaIn& decrypter) {
    for (const auto& attempt : decrypter.attempts()) {
        if (attempt.outcome() == CMS::DecrypterMediaIn::Attempt::UnsupportedAlgorithm) {
            return "the message needs " + attempt.algorithm() + ", which is not supported";
        }
    }
    return "this key does not open the message";
}

/// Writes the body; no file when the key does not open the message. Answers why not, or nothing.
std::string decrypt(const std::string& messageFile, const std::string& bodyFile,
                    const NVX509::KeyCertificatePair& pair) {
    NVX509::RefKeyStore keys(true);
    keys->add(NVX509::RefKeyStorePlugin(new OneKey(pair)));
    FileMediaIn message{File::Path(messageFile)};
    CMS::DecrypterMediaIn decrypter(message, keys);
    SwapBufferMediaOut clear(0x10000, "/tmp/decrypt_bodyXXXXXX");
    if (!decrypter.decrypt(clear)) { // rather than write, which goes on behind what a failed try wrote
        return reasonOf(decrypter);
    }
    FileMediaOut body(File::Path(bodyFile), 0600);
    clear.in().write(body);
    body.end();
    return "";
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 5) {
        std::cerr << "usage: decrypt_body MESSAGE BODY CERTIFICATE KEY\n";
        return 2;
    }
    initialize(); // once, before anything else
    std::string failure;
    try {
        failure = decrypt(argv[1], argv[2], readPair(argv[3], argv[4]));
    } catch (const Exception& exception) {
        std::cerr << exception.asString() << '\n';
        return 1;
    }
    cleanup();
    if (!failure.empty()) {
        std::cerr << "decrypt_body: " << failure << '\n';
        return 1;
    }
}
