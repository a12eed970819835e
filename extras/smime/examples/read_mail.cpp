// Writes what was signed in a mail when its sender did that and is to be believed, and says why not otherwise:
//
//     read_mail roots.pem mail.eml >content

#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto/Crypto.h>

#include <iostream>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// Standard output as a sink.
class StandardOut : public MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        std::cout.write(reinterpret_cast<const char*>(data), length);
    }
};

bool readMail(const std::string& roots, const std::string& mail) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchors(roots);
    const Trust::Verifier verifier(material);
    SMime::ReadOptions options;
    options.trust = &verifier;
    SwapBufferMediaOut content(0x10000, "/tmp/contentXXXXXX"); // until there is a verdict
    const SMime::Answer answer = SMime::read(FileMediaIn(File::Path(mail)), content, options);
    for (const SMime::UncoveredPart& part : answer.notCovered) {
        std::cerr << "nobody signed part " << part.path << " (" << part.type << ")\n";
    }
    if (answer.verdict != SMime::Verdict::accepted || !answer.notCovered.empty()) {
        std::cerr << SMime::nameOf(answer.verdict) << ": " << answer.detail << '\n';
        return false;
    }
    MediaOut out(makeReference<StandardOut, MediaOutImpl>());
    content.in().write(out);
    if (!std::cout.flush()) {
        std::cerr << "standard output cannot be written\n";
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: read_mail ROOTS MAIL\n";
        return 2;
    }
    initialize(); // once, before anything else
    bool isGood = false;
    try {
        isGood = readMail(argv[1], argv[2]);
    } catch (const Exception& failure) {
        std::cerr << failure.asString() << '\n';
    }
    cleanup();
    return isGood ? 0 : 1;
}
