#include "Probes.h"

#include "support/RsaBlocks.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Logger.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <algorithm>
#include <stdexcept>

namespace timing {

using namespace Norvane;
using namespace Norvane::Crypto;
using norvauthority::Identity;
using norvtest::encryptedBlock;
using norvtest::randomBytes;
using norvtest::rsaBlock;
namespace der = norvauthority::der;

namespace {

constexpr std::size_t blockLength = 16;
constexpr std::size_t keyLength = 32;
constexpr std::size_t contentLength = 16 * blockLength;

/// Drops records, which are written alike for all of them.
class Silence : public LogSink {
public:
    void record(const LogRecord& /*record*/) override {}
};

Bytes crypt(const EVP_CIPHER* cipher, const Bytes& key, const unsigned char* vector, const Bytes& clear) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    Bytes secret(clear.size() + blockLength);
    int length = 0;
    if (EVP_EncryptInit_ex(context.get(), cipher, nullptr, key.data(), vector) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_EncryptUpdate(context.get(), secret.data(), &length, clear.data(), static_cast<int>(clear.size())) != 1) {
        throw std::runtime_error("a cipher");
    }
    secret.resize(static_cast<std::size_t>(length));
    return secret;
}

/// Random octets that end in these.
Bytes contentThatEnds(const Bytes& ending) {
    Bytes content = randomBytes(contentLength);
    std::copy(ending.begin(), ending.end(), content.end() - static_cast<std::ptrdiff_t>(ending.size()));
    return content;
}
Bytes soundContent() {
    return contentThatEnds(Bytes(blockLength, blockLength));
}
Bytes contentThatEndsInZero() {
    return contentThatEnds({0});
}
Bytes contentWhosePaddingBeginsWrongly() {
    Bytes padding(blockLength, blockLength);
    padding.front() = 1;
    return contentThatEnds(padding);
}

/// EnvelopedData (RFC 5652, 6.1) with AES-256-CBC.
Bytes envelope(const char* version, const Bytes& recipient, const Bytes& contentKey, const Bytes& content) {
    const Bytes vector = randomBytes(blockLength);
    const Bytes secret = crypt(EVP_aes_256_cbc(), contentKey, vector.data(), content);
    return der::sequence(
        {der::oid("1.2.840.113549.1.7.3"),
         der::element(der::contextConstructed(0),
                      der::sequence({der::integer(version), der::set({recipient}),
                                     der::sequence({der::oid("1.2.840.113549.1.7.1"),
                                                    der::sequence({der::oid("AES-256-CBC"), der::octetString(vector)}),
                                                    der::element(der::context(0), secret)})}))});
}

/// The holder of an RSA key, and messages that are encrypted to it.
class Holder {
public:
    explicit Holder(unsigned int bits)
        : m_identity(norvauthority::issue(
              {.subject = {{"CN", "holder"}}, .key = norvauthority::Key::rsa(bits), .serial = "7a11"})),
          m_store(true) {
        const NVX509::KeyCertificatePair pair(
            RefKey(new PrivateKey(m_identity.key.newReference())),
            NVX509::CertificateFactory()(m_identity.certificate.x509().release(), true));
        m_store->add(NVX509::RefKeyStorePlugin(new OnePair(pair)));
    }

    [[nodiscard]] const NVX509::RefKeyStore& store() const noexcept { return m_store; }
    [[nodiscard]] Bytes block(const Bytes& content) const { return rsaBlock(m_identity.key, content); }
    [[nodiscard]] Bytes message(const Bytes& block, const Bytes& contentKey, const Bytes& content) const {
        const Bytes recipient =
            der::sequence({der::integer("0"), der::sequence({m_identity.name.der(), der::integer(m_identity.serial)}),
                           der::sequence({der::oid("rsaEncryption"), der::null()}),
                           der::octetString(encryptedBlock(m_identity.key, block))});
        return envelope("0", recipient, contentKey, content);
    }

private:
    class OnePair : public NVX509::KeyStorePlugin {
    public:
        explicit OnePair(NVX509::KeyCertificatePair pair) : m_pair(std::move(pair)) {}
        NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/,
                                        const ASN1::Integer& /*serial*/) override {
            return m_pair;
        }
        NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& /*address*/) override { return {}; }
        NVX509::KeyCertificatePair findSigningKey(const EmailAddress& /*address*/) override { return m_pair; }
        NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override { return m_pair; }

    private:
        NVX509::KeyCertificatePair m_pair;
    };

    Identity m_identity;
    NVX509::RefKeyStore m_store;
};

/// All that a content key and a content can be wrong in. The content is sound but for the last ones: a key that opens is a wrong one.
std::vector<Class> ofRsa(const std::shared_ptr<const Holder>& holder) {
    const auto altered = [holder](auto alter) {
        return [holder, alter] {
            Bytes block = holder->block(randomBytes(keyLength));
            alter(block);
            return holder->message(block, randomBytes(keyLength), soundContent());
        };
    };
    const auto withKey = [holder](auto content) {
        return [holder, content] {
            const Bytes key = randomBytes(keyLength);
            return holder->message(holder->block(key), key, content());
        };
    };
    return {
        {"RSA padding wrong", altered([](Bytes& block) { block[1] = 1; })},
        {"RSA padding wrong, no zero behind it", altered([](Bytes& block) {
             std::replace(block.end() - static_cast<std::ptrdiff_t>(keyLength + 1), block.end(), 0, 1);
         })},
        {"RSA padding good, another content key", altered([](Bytes& /*block*/) {})},
        {"RSA padding good, a content key of 31 octets", altered([](Bytes& block) {
             block[block.size() - keyLength - 1] = 1;
             block[block.size() - keyLength] = 0;
         })},
        {"RSA padding good, a content key of no octet", altered([](Bytes& block) {
             std::replace(block.end() - static_cast<std::ptrdiff_t>(keyLength + 1), block.end(), 0, 1);
             block.back() = 0;
         })},
        {"the content key, CBC padding wrong", withKey(contentThatEndsInZero)},
    };
}

/// Under a key-encryption key, which costs little beside what is looked at.
Bytes underSharedKey(const Bytes& sharedKey, const Bytes& content) {
    const Bytes contentKey = randomBytes(keyLength);
    const Bytes recipient =
        der::element(der::contextConstructed(2),
                     der::concat({der::integer("4"), der::sequence({der::octetString({1, 2, 3})}),
                                  der::sequence({der::oid("id-aes256-wrap")}),
                                  der::octetString(crypt(EVP_aes_256_wrap(), sharedKey, nullptr, contentKey))}));
    return envelope("2", recipient, contentKey, content);
}

std::vector<Class> ofCbc(const Bytes& sharedKey) {
    const auto ending = [sharedKey](auto content) {
        return [sharedKey, content] { return underSharedKey(sharedKey, content()); };
    };
    return {
        {"CBC padding wrong, ends in 0", ending(contentThatEndsInZero)},
        {"CBC padding wrong, ends in 255", ending([] { return contentThatEnds({255}); })},
        {"CBC padding wrong in the last octet but one", ending([] {
             return contentThatEnds({1, 2});
         })},
        {"CBC padding wrong in its first octet of 16", ending(contentWhosePaddingBeginsWrongly)},
        {"CBC padding good, the content is garbage", ending(soundContent), true, Expected::differs,
         "the caller gets a content in place of an exception"},
    };
}

Buffer lent(const Bytes& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), true};
}

bool isRead(CMS::EnvelopeReader& reader) {
    NullMediaOut out;
    try {
        reader.write(out);
        return true;
    } catch (const Exception&) {
        return false;
    }
}

/// The way that comparing must not go: it ends at the first octet that differs.
bool equalSoFar(const Bytes& bytes) {
    std::size_t at = 0;
    const volatile unsigned char* const octets = bytes.data();
    while (at != bytes.size() && octets[at] == 0) {
        ++at;
    }
    return at == bytes.size();
}
Bytes differingAt(std::size_t at) {
    Bytes bytes(1024);
    bytes[at] = 1;
    return bytes;
}

} // namespace

std::vector<Probe> probes(unsigned int bits) {
    Logger::instance(false).sink(std::make_shared<Silence>());
    const auto holder = std::make_shared<const Holder>(bits);
    const Bytes sharedKey = randomBytes(keyLength);
    return {
        {"control",
         equalSoFar,
         {{"differs in octet 500", [] { return differingAt(500); }},
          {"differs in octet 500 again", [] { return differingAt(500); }},
          {"differs in octet 510", [] { return differingAt(510); }, false, Expected::mustLeak}},
         true},
        {"EnvelopeReader-CBC",
         [sharedKey](const Bytes& message) {
             CMS::EnvelopeReader reader{MemoryMediaIn(lent(message))};
             if (!reader.open(reader.recipients().front(), lent(sharedKey))) {
                 throw std::runtime_error("the message is not read");
             }
             return isRead(reader);
         },
         ofCbc(sharedKey)},
        {"EnvelopeReader-RSA",
         [holder](const Bytes& message) {
             CMS::EnvelopeReader reader{MemoryMediaIn(lent(message))};
             if (!reader.open(CMS::KeyStoreLookup(holder->store()))) {
                 throw std::runtime_error("the message is not opened");
             }
             return isRead(reader);
         },
         ofRsa(holder)},
        {"DecrypterMediaIn-RSA",
         [holder](const Bytes& message) {
             MemoryMediaIn in(lent(message));
             CMS::DecrypterMediaIn decrypter(in, holder->store());
             SwapBufferMediaOut clear(0x10000, "/tmp/norvtimingXXXXXX");
             const bool good = decrypter.decrypt(clear);
             if (decrypter.attempts().size() != 1) {
                 throw std::runtime_error("the message is not tried once");
             }
             return good;
         },
         ofRsa(holder)},
    };
}

} // namespace timing
