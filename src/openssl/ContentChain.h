#pragma once

/// \file
/// The BIO chain through which a structure's content passes while it is digested or encrypted.

#include "openssl/ContentSink.h"
#include "openssl/Pointers.h"

#include <cstddef>
#include <memory>

namespace Norvane::Crypto::openssl {

/// The chain that `PKCS7_dataInit` makes: digest or cipher BIOs over a sink of our own.
class ContentChain {
public:
    /// What becomes of the content behind the last digest or cipher.
    enum class Sink : int {
        collect, ///< it stays in memory, for structures that carry it
        drop,    ///< nothing is kept, for detached signatures: a body of any size passes in constant memory
    };

    /// The chain for a structure, or null, with the reasons in the error queue.
    static std::unique_ptr<ContentChain> open(PKCS7* structure, Sink sink);
    ~ContentChain();
    ContentChain(const ContentChain&) = delete;
    ContentChain& operator=(const ContentChain&) = delete;

    /// Passes bytes of any number through the chain. A failure shows in `finish`.
    void write(const unsigned char* bytes, std::size_t length) noexcept;
    /// The same, for many bytes: content that is collected is encrypted straight into the place where it collects,
    /// instead of in pieces through the buffer of OpenSSL's cipher BIO.
    void writeLong(const unsigned char* bytes, std::size_t length) noexcept;
    void flush() noexcept;
    /// Makes the structure from what passed; false with the reasons in the error queue, also when not all of it did.
    [[nodiscard]] bool finish(PKCS7* structure) noexcept;

    /// What was collected; null for a chain that drops it.
    [[nodiscard]] const ContentSink* collected() const noexcept { return m_sink.get(); }

private:
    ContentChain(std::unique_ptr<ContentSink> sink, BioChainPtr head) noexcept;

    std::unique_ptr<ContentSink> m_sink;
    BioChainPtr m_head;
    EVP_CIPHER_CTX* m_cipher = nullptr; // the chain's; null when nothing is encrypted or nothing collected
    bool m_failed = false;
};

} // namespace Norvane::Crypto::openssl
