#pragma once

/// \file
/// Decrypting the content of an enveloped message piece by piece.

#include "CMSStreamReader/EnvelopeFraming.h"
#include "openssl/AuthenticatedCipher.h"
#include "openssl/ContentCipher.h"
#include "openssl/PaddedDecryption.h"

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Norvane::Crypto::CMS {

/// Thrown for content longer than may be kept.
struct SpillTooLong {};

/// The clear octets of one message. Wrong ones, and what else is wrong with the message from here on, are thrown as
/// `framing::Broken`, without telling more.
class EnvelopeContent {
public:
    /// \param limit of what is behind the content
    EnvelopeContent(EnvelopeFraming& frame, std::size_t limit) noexcept : m_frame(frame), m_tailLimit(limit) {}
    virtual ~EnvelopeContent();
    EnvelopeContent(const EnvelopeContent&) = delete;
    EnvelopeContent& operator=(const EnvelopeContent&) = delete;

    virtual void spillTo(const std::string& fileTemplate);
    /// Takes the content key; none is one that did not open. Nothing tells at once whether OpenSSL can use it, unless there is no
    /// memory. \throws std::bad_alloc
    /// \param uncertain the way that the key came does not tell a wrong one: what comes out under another key may be a success
    virtual void start(const openssl::WipedBytes& contentKey, bool uncertain) = 0;
    /// The next octets, valid until the next call; none, perhaps, before the end. \throws SpillTooLong, TooLong
    virtual framing::Octets next() = 0;
    /// Whether all octets were handed out, and nothing was found to be wrong.
    [[nodiscard]] bool isComplete() const noexcept { return m_complete; }

protected:
    [[nodiscard]] EnvelopeFraming& frame() noexcept { return m_frame; }
    [[nodiscard]] std::size_t tailLimit() const noexcept { return m_tailLimit; }
    void complete() noexcept { m_complete = true; }

private:
    EnvelopeFraming& m_frame;
    std::size_t m_tailLimit;
    bool m_complete = false;
};

/// EnvelopedData: handed out as it comes.
class StreamedContent : public EnvelopeContent {
public:
    /// \param context has the cipher and its parameters
    StreamedContent(EnvelopeFraming& frame, std::size_t tailLimit, openssl::CipherContextPtr context) noexcept;
    ~StreamedContent() override;
    void start(const openssl::WipedBytes& contentKey, bool uncertain) override;
    framing::Octets next() override;

private:
    openssl::CipherContextPtr m_context;
    framing::Octets m_piece;
    std::optional<openssl::PaddedDecryption> m_decryption; ///< when OpenSSL took a key
    bool m_trusted = false;                                ///< an end without an error is a success
};

/// AuthEnvelopedData: handed out after all of it was found authentic.
class AuthenticatedContent : public EnvelopeContent {
public:
    /// \param source the message from its first octet on where it lies in memory, else nothing
    AuthenticatedContent(EnvelopeFraming& frame, std::size_t tailLimit, openssl::AuthenticatedCipher cipher,
                         framing::Octets source, std::uint64_t spillLimit) noexcept;
    ~AuthenticatedContent() override;
    void spillTo(const std::string& fileTemplate) override { m_template = fileTemplate; }
    void start(const openssl::WipedBytes& contentKey, bool uncertain) override;
    framing::Octets next() override;

private:
    class Pieces;
    /// What is decrypted at once.
    static constexpr std::size_t s_pieceLength = openssl::PaddedDecryption::s_pieceLength;

    unsigned char* scratch();
    /// Decrypts `s_pieceLength` octets at most into the scratch.
    framing::Octets decrypt(EVP_CIPHER_CTX* context, framing::Octets encrypted);
    void keep();
    void verify();
    void verifyAtOnce(Pieces& pieces, EVP_CIPHER_CTX* context);
    [[nodiscard]] std::unique_ptr<Pieces> fromTheBeginning() const;
    [[nodiscard]] bool isChecked(framing::Octets associated);
    [[nodiscard]] bool isDecrypted(framing::Octets associated);

    openssl::AuthenticatedCipher m_cipher;
    framing::Octets m_source;
    std::uint64_t m_spillLimit;
    std::string m_template;
    std::optional<SwapBufferMediaOut> m_spill;
    std::uint64_t m_length = 0; ///< of the content
    bool m_usable = false;      ///< OpenSSL took a key
    bool m_verified = false;
    std::optional<openssl::GcmCheck> m_check;
    std::unique_ptr<Pieces> m_pieces;
    openssl::CipherContextPtr m_context;
    openssl::WipedBytes m_atOnce; ///< all of a small content
    openssl::WipedBytes m_scratch;
};

} // namespace Norvane::Crypto::CMS
