// The readers of the command-line tool: what a stranger's file is taken for, and each reader on it.
#include "Driver.h"

#include "base/Failure.h"
#include "read/CertificateFile.h"
#include "read/Pkcs12File.h"
#include "read/PrivateKeyFile.h"
#include "read/StructureFile.h"
#include "recognise/CmsInText.h"
#include "recognise/DerAndPem.h"

#include <norvcrypto/CMSSignedReader.h>

#include <sys/mman.h>
#include <unistd.h>

using namespace Norvane;
using namespace norvcrypt;

namespace {

/// A file in memory.
class MemoryFile {
public:
    explicit MemoryFile(const Buffer& content) : m_descriptor(memfd_create("input", 0)) {
        fuzz::require(write(m_descriptor, content.data(), content.length()) == static_cast<ssize_t>(content.length()));
    }
    ~MemoryFile() { close(m_descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(m_descriptor); }

private:
    int m_descriptor;
};

template <class Read> void attempt(Read read) {
    try {
        static_cast<void>(read());
    } catch (const Failure& failure) {
        fuzz::require(*failure.what() != '\0');
    }
}

/// Reads a signed message as `verify` does, and once more from its start.
bool passSignature(Inputs& inputs, const std::string& path) {
    StructureFile file(inputs, path);
    try {
        for (int time = 0; time < 2; ++time) {
            Crypto::CMS::SignedReader message(file.structure());
            MediaOut nowhere = NullMediaOut();
            message.write(nowhere);
        }
    } catch (const Exception&) {
        return false;
    }
    file.requireEnd();
    return true;
}

/// Reads without a passphrase, which costs in proportion to the file.
void recognise(const Buffer& input) {
    for (const FoundObject& object : objectsIn(input)) {
        fuzz::require((object.kind == ObjectKind::unknown) == !object.problem.empty());
    }
    const MemoryFile file(input);
    Inputs inputs;
    attempt([&] { return structureInText(input, "input"); });
    attempt([&] { return readCertificates(inputs, file.path()); });
    attempt([&] { return passSignature(inputs, file.path()); });
    attempt([&] { return readPrivateKey(inputs, file.path(), Passphrase()); });
    attempt([&] { return Passphrase(inputs, file.path()).given(); });
}

void openKeys(const Buffer& input) {
    static const MemoryFile secret(Buffer("secret\n", 7, false));
    const MemoryFile file(input);
    Inputs inputs;
    const Passphrase passphrase(inputs, secret.path());
    attempt([&] { return readPkcs12(inputs, file.path(), passphrase); });
    attempt([&] { return readPrivateKey(inputs, file.path(), passphrase); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::run(data, size, recognise, {.constant = fuzz::longNumbers});
    return fuzz::run(data, size, openKeys, {.constant = fuzz::passwords});
}
