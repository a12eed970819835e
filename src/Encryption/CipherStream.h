#pragma once

/// \file
/// What encrypting and decrypting streams have in common, and what tells them apart.

#include "failures/Raise.h"
#include "openssl/DefaultCiphers.h"
#include "openssl/Pointers.h"

#include <norvcrypto/Encryption.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <sstream>
#include <string>

namespace Norvane::Crypto {

struct Encrypting {
    static constexpr auto init = EVP_EncryptInit;
    static constexpr auto update = EVP_EncryptUpdate;
    static constexpr auto finalize = EVP_EncryptFinal_ex;
    static constexpr const failures::Failure& tooShort = failures::encryptionTooShort;
    static constexpr const failures::Failure& withoutCipher = failures::encryptionWithoutCipher;
    static constexpr const failures::Failure& context = failures::encryptionContext;
    static constexpr const failures::Failure& write = failures::encrypterWrite;
    static constexpr const failures::Failure& end = failures::encrypterEnd;
};

struct Decrypting {
    static constexpr auto init = EVP_DecryptInit;
    static constexpr auto update = EVP_DecryptUpdate;
    static constexpr auto finalize = EVP_DecryptFinal_ex;
    static constexpr const failures::Failure& tooShort = failures::decryptionTooShort;
    static constexpr const failures::Failure& withoutCipher = failures::decryptionWithoutCipher;
    static constexpr const failures::Failure& context = failures::decryptionContext;
    static constexpr const failures::Failure& write = failures::decrypterWrite;
    static constexpr const failures::Failure& end = failures::decrypterEnd;
};

std::string unrecognizedCipher(Cipher cipher);

/// Refuses a buffer from which OpenSSL would read past its end.
void checkLength(const failures::Failure& failure, const char* what, const Buffer& given, int needed,
                 const EVP_CIPHER* cipher);

/// A context that is ready for work in one direction.
template <class Direction>
openssl::CipherContextPtr initializeContext(Cipher number, const Buffer& key, const Buffer& iv) {
    const EVP_CIPHER* cipher = initializeCipher(number);
    if (cipher == nullptr) {
        failures::raise(Direction::withoutCipher, unrecognizedCipher(number));
    }
    checkLength(Direction::tooShort, "key", key, EVP_CIPHER_get_key_length(cipher), cipher);
    checkLength(Direction::tooShort, "IV", iv, EVP_CIPHER_get_iv_length(cipher), cipher);
    openssl::CipherContextPtr context(EVP_CIPHER_CTX_new());
    if (!context) {
        throw std::bad_alloc();
    }
    if (Direction::init(context.get(), openssl::implementationOf(cipher), key.data(), iv.data()) == 0) {
        failures::raise(Direction::context);
    }
    return context;
}

/// Encrypts or decrypts, and hands the result to a target.
template <class Direction> class CipherStream {
public:
    CipherStream(Cipher cipher, const Buffer& key, const Buffer& iv)
        : m_context(initializeContext<Direction>(cipher, key, iv)) {}

    void write(MediaOut& target, const unsigned char* data, unsigned int length) {
        if (data == nullptr || length == 0) {
            return;
        }
        if (!m_context) {
            failures::raise(Direction::write, "written to after its end");
        }
        MediaOutImpl* const out = target.operator->(); // without a target it throws before a byte is taken
        constexpr unsigned int most = 1U << 30U;       // OpenSSL counts in int, the block that is held back included
        for (unsigned int done = 0; done < length;) {
            const unsigned int piece = std::min(length - done, most);
            writePiece(*out, data + done, piece);
            done += piece;
        }
    }

    void end(MediaOut& target) {
        if (m_ended) {
            return;
        }
        if (m_context) {
            finalize();
        }
        if (m_isLastLeft) {
            target.write(m_last.data(), m_lastLength);
            m_isLastLeft = false;
        }
        target.end();
        m_ended = true;
    }

private:
    void writePiece(MediaOutImpl& target, const unsigned char* data, unsigned int length) {
        constexpr unsigned int small = 4096;
        constexpr unsigned int room = 32;             // for a block that is held back
        std::array<unsigned char, small + room> area; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
        std::unique_ptr<unsigned char[]> large;
        if (length > small) {
            large = std::make_unique_for_overwrite<unsigned char[]>(std::size_t{length} + room);
        }
        unsigned char* out = large ? large.get() : area.data();
        int outLength = 0;
        if (Direction::update(m_context.get(), out, &outLength, data, static_cast<int>(length)) == 0) {
            failures::raiseWithErrors(Direction::write);
        }
        target.write(out, static_cast<unsigned int>(outLength));
    }

    /// Once: finalising a second time would make another block. The key goes with the context.
    void finalize() {
        int length = 0;
        if (Direction::finalize(m_context.get(), m_last.data(), &length) == 0) {
            failures::raiseWithErrors(Direction::end);
        }
        m_lastLength = static_cast<unsigned int>(length);
        m_isLastLeft = true;
        m_context.reset();
    }

    openssl::CipherContextPtr m_context; ///< null once it was finalised
    bool m_ended = false;
    bool m_isLastLeft = false; ///< from its making until the target has taken it
    unsigned int m_lastLength = 0;
    std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> m_last{};
};

} // namespace Norvane::Crypto
