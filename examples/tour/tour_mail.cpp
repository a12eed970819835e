#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// Signed for who it is from, encrypted for who it is to, by the addresses in the mail.
Buffer sealed(const char* mail, const NVX509::RefKeyStore& keys) {
    SMime::SignOptions signing;
    signing.keys = keys;
    SMime::EncryptOptions encrypting;
    encrypting.keys = keys;
    encrypting.addressesOfMessage = true;
    MemoryMediaOut out;
    SMime::signAndEncrypt(FileMediaIn(File::Path(mail)), signing, encrypting, out);
    return out.content();
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: tour_mail STORE ROOTS MAIL\n";
        return 2;
    }
    initialize();
    int status = 1;
    try {
        const NVX509::RefDirectoryKeyStore directory(argv[1]);
        NVX509::RefKeyStore keys(true);
        keys->add(directory.plugin());
        const auto material = std::make_shared<Trust::Material>();
        material->addAnchors(argv[2]);
        const Trust::Verifier verifier(material);
        const CMS::KeyStoreLookup lookup(keys);

        SMime::ReadOptions options;
        options.trust = &verifier;
        options.keys = &lookup;
        SwapBufferMediaOut content(0x10000, "/tmp/contentXXXXXX"); // until there is a verdict
        const SMime::Answer answer = SMime::read(MemoryMediaIn(sealed(argv[3], keys)), content, options);
        std::cout << SMime::nameOf(answer.verdict) << ", " << answer.notCovered.size() << " parts that nobody signed\n";
        status = answer.verdict == SMime::Verdict::accepted ? 0 : 1;
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    cleanup();
    return status;
}
