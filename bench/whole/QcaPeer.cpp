// QCA, with its OpenSSL plug-in: digests, ciphers, and CMS messages (which it makes and reads whole, in memory).
#include "Contestants.h"

#include <QCoreApplication>
#include <QtCrypto>

#include <memory>

namespace bench {

namespace {

constexpr const char* who = "QCA";
/// Its messages take time that grows with the square of the size.
constexpr std::size_t mostOfMessages = 1U << 20U;

QByteArray arrayOf(const unsigned char* data, std::size_t length) {
    return {reinterpret_cast<const char*>(data), static_cast<int>(length)};
}

Run crypting(std::size_t size, QCA::Direction direction) {
    require(QCA::isSupported("aes256-cbc-pkcs7"), "no such cipher");
    const QCA::SymmetricKey key(QByteArray(32, 1));
    const QCA::InitializationVector vector(QByteArray(16, 2));
    auto bytes = std::make_shared<Bytes>(body(size).begin(), body(size).begin() + static_cast<std::ptrdiff_t>(size));
    if (direction == QCA::Decode) {
        QCA::Cipher cipher("aes256", QCA::Cipher::CBC, QCA::Cipher::PKCS7, QCA::Encode, key, vector);
        const QByteArray secret = cipher.process(QCA::MemoryRegion(arrayOf(bytes->data(), size - 1))).toByteArray();
        bytes->assign(secret.begin(), secret.end());
    }
    return [bytes, key, vector, direction] {
        QCA::Cipher cipher("aes256", QCA::Cipher::CBC, QCA::Cipher::PKCS7, direction, key, vector);
        inPieces(*bytes, bytes->size(), [&](const unsigned char* data, unsigned int length) {
            keep(cipher.update(QCA::MemoryRegion(arrayOf(data, length))));
        });
        keep(cipher.final());
        require(cipher.ok(), "not done");
    };
}

QCA::Certificate certificateOf(const Material& material) {
    return QCA::Certificate::fromDER(arrayOf(material.certificateDer.data(), material.certificateDer.size()));
}

QCA::SecureMessageKey keyOf(const Material& material) {
    QCA::SecureMessageKey key;
    QCA::CertificateChain chain;
    chain += certificateOf(material);
    key.setX509CertificateChain(chain);
    key.setX509PrivateKey(QCA::PrivateKey::fromPEMFile(QString::fromStdString(material.folder + "/key.pem")));
    return key;
}

/// A body through a message that was started.
void through(QCA::SecureMessage& message, const Bytes& bytes, std::size_t size) {
    inPieces(bytes, size,
             [&](const unsigned char* data, unsigned int length) { message.update(arrayOf(data, length)); });
    message.end();
    require(message.waitForFinished(-1) && message.success(), "not done");
    keep(message.read());
}

} // namespace

void addQca(Contest& contest, const Material& material) {
    static int s_count = 1; // Qt keeps references to both
    static char s_name[] = "bench_whole";
    static char* s_arguments[] = {s_name, nullptr};
    static const QCoreApplication s_application(s_count, s_arguments);
    static const QCA::Initializer s_started;
    contest.add("digest", who, [](std::size_t size) -> Run {
        return [size] {
            QCA::Hash hash("sha256");
            inPieces(body(size), size, [&](const unsigned char* data, unsigned int length) {
                hash.update(reinterpret_cast<const char*>(data), static_cast<int>(length));
            });
            keep(hash.final());
        };
    });
    contest.add("encrypt", who, [](std::size_t size) { return crypting(size, QCA::Encode); });
    contest.add("decrypt", who, [](std::size_t size) { return crypting(size, QCA::Decode); });
    if (!QCA::isSupported("cms")) {
        return;
    }
    contest.add(
        "sign", who,
        [&material](std::size_t size) -> Run {
            const QCA::SecureMessageKey key = keyOf(material);
            return [key, size] {
                QCA::CMS cms;
                QCA::SecureMessage message(&cms);
                message.setSigner(key);
                message.setFormat(QCA::SecureMessage::Binary);
                message.startSign(QCA::SecureMessage::Detached);
                through(message, body(size), size);
                require(!message.signature().isEmpty(), "not signed");
            };
        },
        mostOfMessages);
    contest.add(
        "envelope", who,
        [&material](std::size_t size) -> Run {
            const QCA::SecureMessageKey key = keyOf(material);
            return [key, size] {
                QCA::CMS cms;
                QCA::SecureMessage message(&cms);
                message.setRecipient(key);
                message.setFormat(QCA::SecureMessage::Binary);
                message.startEncrypt();
                through(message, body(size), size);
            };
        },
        mostOfMessages);
    contest.add(
        "open", who,
        [&material](std::size_t size) -> Run {
            const QCA::SecureMessageKey key = keyOf(material);
            const auto secret = std::make_shared<Bytes>(material.envelopedMessage(size));
            return [key, secret] {
                QCA::CMS cms;
                cms.setPrivateKeys({key});
                QCA::SecureMessage message(&cms);
                message.setFormat(QCA::SecureMessage::Binary);
                message.startDecrypt();
                through(message, *secret, secret->size());
            };
        },
        mostOfMessages);
}

} // namespace bench
