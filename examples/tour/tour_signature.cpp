#include <norvcmsg/File.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <list>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

NVX509::KeyCertificatePair readPair(const char* certificateFile, const char* keyFile) {
    std::list<NVX509::RefCertificate> certificates;
    NVX509::CertificateFactory().read(std::string(certificateFile), certificates);
    Buffer pem;
    FileMediaIn(File::Path(keyFile)).read(pem, 0);
    auto* key = new PrivateKey(nullptr);
    const RefKey owned(key);
    key->readUnattended(pem, nullptr); // never asks for a passphrase
    return {owned, certificates.front()};
}

Buffer signedBeside(const char* bodyFile, const NVX509::KeyCertificatePair& signer) {
    CMS::SignedWriter::Options options;
    options.signers.emplace_back(signer);
    options.content = CMS::SignedWriter::Content::detached; // the body is sent beside it
    MemoryMediaOut signature;
    CMS::SignedWriter writer(options);
    writer.attach(signature);
    FileMediaIn(File::Path(bodyFile)).write(writer);
    writer.end();
    return signature.content();
}

void judge(const Buffer& signature, const char* bodyFile) {
    CMS::SignedReader message{MemoryMediaIn(signature)};
    MediaOut digest = message.digest();
    FileMediaIn(File::Path(bodyFile)).write(digest);
    for (const CMS::SignedReader::Signer& signer : message.signers()) {
        const CMS::SignatureResult result = message.verdict(signer);
        std::cout << bodyFile << ": " << CMS::textOf(result.reason) << '\n';
    }
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 5) {
        std::cerr << "usage: tour_signature CERTIFICATE KEY BODY OTHER-BODY\n";
        return 2;
    }
    initialize();
    int status = 0;
    try {
        const Buffer signature = signedBeside(argv[3], readPair(argv[1], argv[2]));
        judge(signature, argv[3]);
        judge(signature, argv[4]);
    } catch (const Exception& failure) { // every failure of the library is one of these
        std::cerr << failure.asString() << '\n';
        status = 1;
    }
    cleanup();
    return status;
}
