#include "openssl/PeerMessages.h"

#include "openssl/Acceptance.h"
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>
#include <openssl/sslerr.h>

#include <cstdint>
#include <optional>
#include <span>

namespace Norvane::Crypto::openssl {

namespace {

using Bytes = std::span<unsigned char>;

/// Chains of 3 certificates with RSA keys of 4096 bits have 6 KiB, with signatures of ML-DSA-87 some 25 KiB.
constexpr long certificateListLimit = 64L * 1024;

/// Messages after the handshake for which the peer owes no bytes, and the bytes for each of the others.
constexpr std::uint64_t freeMessages = 64;
constexpr std::uint64_t bytesPerMessage = 4096;
constexpr std::uint64_t handshakeWeight = 4; ///< a whole handshake follows

constexpr std::size_t headerLength = 4; ///< the type and the length of a handshake message

/// Queued in front of OpenSSL's reason, which is that the message is malformed.
constexpr const char* function = "refuseCostlyMessages";

/// Takes fields off the front of a message; what is too short is left to OpenSSL, which refuses it.
class Fields {
public:
    explicit Fields(Bytes bytes) : m_bytes(bytes) {}

    [[nodiscard]] bool empty() const { return m_bytes.empty(); }

    std::optional<Bytes> take(std::size_t length) {
        if (m_bytes.size() < length) {
            return std::nullopt;
        }
        const Bytes taken = m_bytes.first(length);
        m_bytes = m_bytes.subspan(length);
        return taken;
    }

    /// A field behind its length, which has so many bytes.
    std::optional<Bytes> takePrefixed(std::size_t lengthBytes) {
        const auto prefix = take(lengthBytes);
        if (!prefix) {
            return std::nullopt;
        }
        std::size_t length = 0;
        for (const unsigned char byte : *prefix) {
            length = length << 8U | byte;
        }
        return take(length);
    }

private:
    Bytes m_bytes;
};

void fill(Bytes field, unsigned char value) {
    for (unsigned char& byte : field) {
        byte = value;
    }
}

/// RFC 5246, 7.4.2, and RFC 8446, 4.4.2, where a context comes first and extensions follow each certificate.
void lookAtCertificates(Fields message, bool isTls13) {
    if (isTls13 && !message.takePrefixed(1)) {
        return;
    }
    Fields behind = message;
    const auto listLength = message.take(3);
    const auto list = behind.takePrefixed(3);
    if (!listLength || !list) {
        return;
    }
    Fields entries(*list);
    while (!entries.empty()) {
        const auto certificate = entries.takePrefixed(3);
        if (!certificate) {
            return;
        }
        if (!isAccepted(function, refusalOf(certificate->data(), certificate->size()))) {
            fill(*listLength, 0xFF); // longer than any message
            return;
        }
        if (isTls13 && !entries.takePrefixed(2)) { // after the certificate, which OpenSSL decodes before
            return;
        }
    }
}

/// RFC 8446, 4.6.1.
std::optional<Bytes> lengthOfTicket(Fields message) {
    constexpr std::size_t lifetimeAndAge = 8;
    return message.take(lifetimeAndAge) && message.takePrefixed(1) ? message.take(2) : std::nullopt;
}

/// Counts a message, as `weight` of them, against the bytes that came. When that is too many, gives a field a
/// value that it must not have. The count stands in the connection in place of a pointer.
void refuseFlood(SSL* ssl, int reason, std::uint64_t weight, std::optional<Bytes> field, unsigned char forbidden) {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    const auto count = reinterpret_cast<std::uintptr_t>(SSL_get_ex_data(ssl, index)) + weight;
    SSL_set_ex_data(ssl, index, reinterpret_cast<void*>(count)); // NOLINT(performance-no-int-to-ptr)
    if (field && count > freeMessages + BIO_number_read(SSL_get_rbio(ssl)) / bytesPerMessage) {
        queueError(function, ERR_LIB_SSL, reason);
        fill(*field, forbidden);
    }
}

} // namespace

void boundPeers(SSL_CTX* context) {
    SSL_CTX_set_max_cert_list(context, certificateListLimit);
    SSL_CTX_set_msg_callback(
        context, [](int isWritten, int /*version*/, int contentType, const void* data, std::size_t length, SSL* ssl,
                    void* /*argument*/) { refuseCostlyMessage(isWritten != 0, contentType, data, length, ssl); });
}

void refuseCostlyMessage(bool isWritten, int contentType, const void* data, std::size_t length, SSL* ssl) noexcept {
    if (isWritten || contentType != SSL3_RT_HANDSHAKE || length < headerLength || ssl == nullptr ||
        SSL_is_dtls(ssl) != 0) {
        return;
    }
    // OpenSSL shows its own buffer, after the message went into the transcript and before it is read.
    auto* const bytes = static_cast<unsigned char*>(const_cast<void*>(data));
    const Fields body(Bytes(bytes + headerLength, length - headerLength));
    const bool isTls13 = SSL_version(ssl) == TLS1_3_VERSION;
    switch (*bytes) {
    case SSL3_MT_CERTIFICATE:
        lookAtCertificates(body, isTls13);
        break;
    case SSL3_MT_SERVER_HELLO: // again and again, when a server of TLS 1.2 renegotiates
        refuseFlood(ssl, SSL_R_NO_RENEGOTIATION, handshakeWeight, Fields(body).take(2), 0xFF);
        break;
    case SSL3_MT_KEY_UPDATE:
        refuseFlood(ssl, SSL_R_TOO_MANY_KEY_UPDATES, 1, Fields(body).take(1), 0xFF);
        break;
    case SSL3_MT_NEWSESSION_TICKET:
        if (isTls13) {
            refuseFlood(ssl, SSL_R_UNEXPECTED_MESSAGE, 1, lengthOfTicket(body), 0);
        }
        break;
    default:
        break;
    }
}

} // namespace Norvane::Crypto::openssl
