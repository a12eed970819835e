#include "openssl/PeerMessages.h"

#include "openssl/Acceptance.h"
#include "openssl/ErrorQueue.h"

#include <openssl/dherr.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/sslerr.h>

#include <algorithm>
#include <cerrno>
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

/// In bytes: 8,192 bits, the longest prime that has a name in TLS (RFC 7919). It takes a quarter of a second, and 10,000
/// bits, which OpenSSL takes, a whole one.
constexpr std::size_t longestPrime = 1024;

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

/// Adds to a number that stands in the connection in place of a pointer.
std::uint64_t addTo(SSL* ssl, int index, std::uint64_t more) {
    const auto sum = reinterpret_cast<std::uintptr_t>(SSL_get_ex_data(ssl, index)) + more;
    SSL_set_ex_data(ssl, index, reinterpret_cast<void*>(sum)); // NOLINT(performance-no-int-to-ptr)
    return sum;
}

/// Adds to the bytes of handshake messages, which pay for none. The sum.
std::uint64_t handshakeBytes(SSL* ssl, std::uint64_t more) {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return addTo(ssl, index, more);
}

/// Counts a message, as `weight` of them, against the other bytes that came. True when that is too many.
bool isTooMany(SSL* ssl, std::uint64_t weight) {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    const std::uint64_t received = BIO_number_read(SSL_get_rbio(ssl));
    const std::uint64_t paying = received - std::min(received, handshakeBytes(ssl, 0));
    return addTo(ssl, index, weight) > freeMessages + paying / bytesPerMessage;
}

/// When a message is one too many, gives a field a value that it must not have.
void refuseFlood(SSL* ssl, int reason, std::uint64_t weight, std::optional<Bytes> field, unsigned char forbidden) {
    if (isTooMany(ssl, weight) && field) {
        queueError(function, ERR_LIB_SSL, reason);
        fill(*field, forbidden);
    }
}

long refuseReading(BIO* bio, int operation, const char* /*data*/, std::size_t /*length*/, int /*argument*/,
                   long /*number*/, int result, std::size_t* /*processed*/) {
    if (operation != BIO_CB_READ) {
        return result;
    }
    BIO_clear_retry_flags(bio);
    errno = EPROTO;
    return -1;
}

/// Counts a message that OpenSSL passes over, to read the next one at once: one too many and it reads no more.
void endFlood(SSL* ssl) {
    BIO* const reading = SSL_get_rbio(ssl);
    if (isTooMany(ssl, 1) && BIO_get_callback_ex(reading) != refuseReading) {
        queueError(function, ERR_LIB_SSL, SSL_R_NO_RENEGOTIATION);
        BIO_set_callback_ex(reading, refuseReading);
    }
}

/// RFC 5246, 7.4.3: the client raises numbers to powers as long as the prime that the server chose, twice.
void lookAtPrime(const SSL* ssl, Fields message) {
    const SSL_CIPHER* const cipher = SSL_get_pending_cipher(ssl);
    const int exchange = cipher == nullptr ? NID_undef : SSL_CIPHER_get_kx_nid(cipher);
    if (exchange != NID_kx_dhe && (exchange != NID_kx_dhe_psk || !message.takePrefixed(2))) {
        return;
    }
    Fields behind = message;
    const auto length = message.take(2);
    const auto prime = behind.takePrefixed(2);
    if (length && prime && prime->size() > longestPrime) {
        queueError(function, ERR_LIB_DH, DH_R_MODULUS_TOO_LARGE);
        fill(*length, 0xFF); // longer than the message
    }
}

/// An answer to the hello of a client that may not renegotiate.
bool refusesRenegotiation(int contentType, const void* data, std::size_t length, const SSL* ssl) {
    const auto* const alert = static_cast<const unsigned char*>(data);
    return contentType == SSL3_RT_ALERT && length == 2 && alert[1] == SSL_AD_NO_RENEGOTIATION && ssl != nullptr &&
           SSL_is_dtls(ssl) == 0 && SSL_is_server(ssl) != 0;
}

} // namespace

void boundPeers(SSL_CTX* context) {
    SSL_CTX_set_max_cert_list(context, certificateListLimit);
    SSL_CTX_set_msg_callback(
        context, [](int isWritten, int /*version*/, int contentType, const void* data, std::size_t length, SSL* ssl,
                    void* /*argument*/) { refuseCostlyMessage(isWritten != 0, contentType, data, length, ssl); });
}

void refuseCostlyMessage(bool isWritten, int contentType, const void* data, std::size_t length, SSL* ssl) noexcept {
    if (isWritten && refusesRenegotiation(contentType, data, length, ssl)) {
        endFlood(ssl); // the hello was shown before OpenSSL refused it
    }
    if (isWritten || contentType != SSL3_RT_HANDSHAKE || length < headerLength || ssl == nullptr ||
        SSL_is_dtls(ssl) != 0) {
        return;
    }
    // OpenSSL shows its own buffer, after the message went into the transcript and before it is read.
    auto* const bytes = static_cast<unsigned char*>(const_cast<void*>(data));
    const Fields body(Bytes(bytes + headerLength, length - headerLength));
    const bool isTls13 = SSL_version(ssl) == TLS1_3_VERSION;
    handshakeBytes(ssl, length);
    switch (*bytes) {
    case SSL3_MT_CERTIFICATE:
        lookAtCertificates(body, isTls13);
        break;
    case SSL3_MT_HELLO_REQUEST: // in TLS 1.2, without end while a handshake goes on
        endFlood(ssl);
        break;
    case SSL3_MT_SERVER_KEY_EXCHANGE:
        lookAtPrime(ssl, body);
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
