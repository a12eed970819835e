#include "failures/Raise.h"
#include "openssl/Bios.h"
#include "openssl/KeyCoding.h"
#include "openssl/Pem.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/Key.h>

#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

namespace Norvane {

template class RefCounted<Crypto::Key>;
template class Ref<Crypto::Key>;

} // namespace Norvane

namespace Norvane::Crypto {

namespace {

EVP_PKEY* keyOf(const Key& key) {
    return static_cast<EVP_PKEY*>(key.keyData());
}

/// The DER bytes of `in`, at the front of at least `in.length()` readable bytes: what base64 leaves free is zero. Text
/// that is not base64 leaves nothing, which no decoder takes for a key.
Buffer decodedDer(const Buffer& in, bool base64) {
    if (!base64) {
        Buffer der(in);
        der.protect();
        return der;
    }
    Buffer der(static_cast<int>(std::min(in.size(), static_cast<unsigned int>(INT_MAX))), 0);
    der.protect();
    in.decodeBase64(der); // which keeps capacity and mark
    return der;
}

/// Puts what was written to `source` into `out`, as it is or as base64, protected.
void takeDer(MemoryBIO& source, Buffer& out, bool base64) {
    const Buffer der = source;
    if (base64) {
        std::string text = der.toBase64String();
        out = Buffer(text.data(), static_cast<unsigned int>(text.size()), false);
        OPENSSL_cleanse(text.data(), text.size());
    } else {
        out = der;
    }
    out.protect();
}

constexpr std::string_view pemPrefix = "Could not decode the private key:  ";

/// The key that was read; throws when there is none.
EVP_PKEY* take(openssl::PrivateKeyReading reading, const failures::Failure& failure, std::string_view prefix = "") {
    if (!reading.refusal.empty()) {
        failures::raise<TooCostlyException>(failure, std::string(prefix) + reading.refusal);
    }
    if (!reading.key) {
        failures::raiseWithErrors(failure, prefix);
    }
    return reading.key.release();
}

/// Answers OpenSSL's question for a passphrase with the buffer that `data` is; without one there is no answer.
int answerPassphrase(char* out, int size, int /*forWriting*/, void* data) {
    const auto* passphrase = static_cast<const Buffer*>(data);
    if (passphrase == nullptr || passphrase->length() > static_cast<unsigned int>(size)) {
        return -1;
    }
    std::copy_n(passphrase->data(), passphrase->length(), out);
    return static_cast<int>(passphrase->length());
}

bool isPem(const Buffer& in) {
    return std::string_view(reinterpret_cast<const char*>(in.data()), in.length()).find("-----BEGIN ") !=
           std::string_view::npos;
}

using WriteDer = bool (*)(BIO*, EVP_PKEY*);

/// Both kinds of `write`: a failure inside, the memory BIO's included, becomes the cause of the `outer` one.
void writeDer(const Key& key, Buffer& out, bool base64, WriteDer encode, const failures::Failure& inner,
              const failures::Failure& outer) {
    try {
        MemoryBIO der;
        der.protect();
        if (!encode(der, keyOf(key))) {
            failures::raiseWithErrors(inner);
        }
        takeDer(der, out, base64);
    } catch (const Exception& cause) {
        failures::raiseBecause(outer, cause);
    }
}

} // namespace

TooCostlyException::TooCostlyException(const TooCostlyException& other) noexcept = default;
TooCostlyException& TooCostlyException::operator=(const TooCostlyException& other) noexcept = default;
TooCostlyException::~TooCostlyException() = default;

Key::Key(void* keyData) : m_keyData(keyData) {}

Key::~Key() = default;

void* Key::keyData() const noexcept {
    return m_keyData;
}

void Key::keyData(void* keyData) noexcept {
    m_keyData = keyData;
}

PublicKey::PublicKey(void* keyData) : Key(keyData) {}

PublicKey::~PublicKey() {
    EVP_PKEY_free(keyOf(*this));
    keyData(nullptr);
}

void PublicKey::readPEM(const Buffer& in) {
    readPEM(in, "");
}

void PublicKey::readPEM(const Buffer& in, const std::string& passphrase) {
    MemoryBIO source(in);
    // Of all blocks: the reader tries one after the other.
    const openssl::Refusal refusal = openssl::pemRefusalOf(in.data(), in.length());
    openssl::KeyPtr key =
        openssl::isAccepted("PEM_read_bio_PUBKEY", refusal) ? openssl::readPublicPem(source, passphrase) : nullptr;
    if (!key) {
        failures::raiseWithErrors(failures::publicKeyReadPem, "Could not decode the public key:  ");
    }
    keyData(key.release());
}

void PublicKey::read(const Buffer& in, bool base64) {
    MemoryBIO source(decodedDer(in, base64));
    openssl::KeyPtr key = openssl::readPublicDer(source);
    if (!key) {
        failures::raiseWithErrors(failures::publicKeyRead);
    }
    keyData(key.release());
}

void PublicKey::writePEM(Buffer& out, const std::string& /*passphrase*/) {
    try {
        MemoryBIO pem;
        const bool written = [&] {
            const openssl::ErrorMark quiet;
            return openssl::writePublicPem(pem, keyOf(*this));
        }();
        // Success is what fails here: callers have come to rely on this operation never answering a text.
        if (written) {
            failures::raiseWithErrors(failures::publicKeyWritePemInner);
        }
        out = static_cast<Buffer>(pem);
        out.protect();
    } catch (const Exception& cause) {
        failures::raiseBecause(failures::publicKeyWritePem, cause);
    }
}

void PublicKey::write(Buffer& out, bool base64) {
    writeDer(*this, out, base64, openssl::writePublicDer, failures::publicKeyWriteInner, failures::publicKeyWrite);
}

PrivateKey::PrivateKey(void* keyData) : Key(keyData) {}

PrivateKey::~PrivateKey() {
    EVP_PKEY_free(keyOf(*this));
    keyData(nullptr);
}

void PrivateKey::readPEM(const Buffer& in) {
    readPEM(in, "");
}

void PrivateKey::readPEM(const Buffer& in, const std::string& passphrase) {
    MemoryBIO source(in);
    source.protect();
    keyData(take(openssl::readPrivatePem(source, passphrase), failures::privateKeyReadPem, pemPrefix));
}

void PrivateKey::read(const Buffer& in, bool base64) {
    const Buffer der = decodedDer(in, base64);
    // The source is as long as the text, not as the bytes decoded from it: the decoder stops at the end of the first
    // structure, and what follows up to there is zero.
    openssl::BioPtr source = openssl::memorySource(der.data(), in.length());
    if (!source) {
        failures::raise(failures::privateKeyReadSource);
    }
    keyData(take(openssl::readPrivateDer(der.data(), in.length(), source.get()), failures::privateKeyRead));
}

void PrivateKey::readUnattended(const Buffer& in, const Buffer* passphrase) {
    const openssl::PassphraseSource answer{answerPassphrase, const_cast<Buffer*>(passphrase)};
    if (isPem(in)) {
        // Where it is: a copy of the text would be one more to wipe.
        const openssl::BioPtr source = openssl::memorySource(in.data(), in.length());
        if (!source) {
            failures::raiseWithErrors(failures::privateKeyReadPem, pemPrefix);
        }
        keyData(take(openssl::readPrivatePem(source.get(), answer), failures::privateKeyReadPem, pemPrefix));
    } else if (openssl::isEncryptedDer(in.data(), in.length())) {
        keyData(take(openssl::readEncryptedDer(in.data(), in.length(), answer), failures::privateKeyRead));
    } else {
        read(in, false);
    }
}

void PrivateKey::writePEM(Buffer& out, const std::string& passphrase) {
    try {
        MemoryBIO pem;
        pem.protect();
        if (!openssl::writePrivatePem(pem, keyOf(*this), passphrase)) {
            failures::raiseWithErrors(failures::privateKeyWritePemInner);
        }
        out = static_cast<Buffer>(pem);
        out.protect();
    } catch (const Exception& cause) {
        failures::raiseBecause(failures::privateKeyWritePem, cause);
    }
}

void PrivateKey::write(Buffer& out, bool base64) {
    writeDer(*this, out, base64, openssl::writePrivateDer, failures::privateKeyWriteInner, failures::privateKeyWrite);
}

RefKey::RefKey() = default;

RefKey::RefKey(Key* key) : Ref(key == nullptr ? nullptr : adoptReference(key)) {}

RefKey::RefKey(Key::Type type) {
    if (type == Key::PUBLIC_KEY) {
        reset(makeReference<PublicKey, Key>(nullptr));
    } else if (type == Key::PRIVATE_KEY) {
        reset(makeReference<PrivateKey, Key>(nullptr));
    }
}

RefKey::RefKey(const RefKey& other) = default;
RefKey& RefKey::operator=(const RefKey& other) = default;
RefKey::~RefKey() = default;

RefKey::operator evp_pkey_st*() const noexcept {
    const Key* key = bodyOrNull();
    return key == nullptr ? nullptr : keyOf(*key);
}

} // namespace Norvane::Crypto
