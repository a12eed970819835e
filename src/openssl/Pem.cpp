#include "openssl/Pem.h"

#include "openssl/Acceptance.h"
#include "openssl/Bios.h"
#include "openssl/Decode.h"

#include <openssl/pem.h>

#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

/// One block of a PEM text, which may hold a key.
struct Block {
    Block() = default;
    ~Block() {
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_clear_free(data, static_cast<std::size_t>(length));
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    char* label = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
};

} // namespace

CertificatePtr readCertificatePem(BIO* source) {
    unsigned char* data = nullptr;
    long length = 0;
    if (PEM_bytes_read_bio(&data, &length, nullptr, PEM_STRING_X509, source, refusePassphrase, nullptr) != 1) {
        return nullptr;
    }
    const OwnedMemory<unsigned char> der(data);
    return CertificatePtr(decodeAccepted<d2i_X509>(data, static_cast<unsigned int>(length)));
}

Refusal pemRefusalOf(const unsigned char* text, std::size_t length) noexcept {
    if (length > INT_MAX) {
        return Refusal::tooLong;
    }
    const ErrorMark mark;
    const BioPtr source = memorySource(text, static_cast<unsigned int>(length));
    Refusal refusal = Refusal::none;
    while (source && refusal == Refusal::none && BIO_pending(source.get()) > 0) {
        Block block; // a block that is damaged is passed over
        if (PEM_read_bio(source.get(), &block.label, &block.header, &block.data, &block.length) == 1) {
            refusal = refusalOf(block.data, static_cast<std::size_t>(block.length));
        }
    }
    return refusal;
}

} // namespace Norvane::Crypto::openssl
