#include "Tasks.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Encryption.h>
#include <norvcrypto/Hasher.h>
#include <norvcrypto/Key.h>

#include <authority/Der.h>

#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <memory>

namespace vectors {

namespace {

using namespace Norvane;
using namespace Norvane::Crypto;
namespace der = norvauthority::der;

Hasher::Type digestNamed(const Json& task) {
    const std::string name = task.at("digest");
    const int number = OBJ_sn2nid(name.c_str());
    if (number == NID_undef) {
        throw BadTask("no digest " + name);
    }
    return static_cast<Hasher::Type>(number);
}

/// The name of everybody in the structures that are made here.
Bytes somebody() {
    return der::sequence(
        {der::set({der::sequence({der::oid("CN"), der::element(0x0C, norvauthority::bytes("somebody"))})})});
}

/// A certificate of a public key. Nobody signed it, and nobody asks.
Bytes certificateOf(const Bytes& publicKey) {
    const Bytes algorithm = der::sequence({der::oid("sha256WithRSAEncryption"), der::null()});
    const auto time = [](const char* text) { return der::element(der::utcTimeTag, norvauthority::bytes(text)); };
    const Bytes signedPart =
        der::sequence({der::integer("1"), algorithm, somebody(),
                       der::sequence({time("200101000000Z"), time("491231235959Z")}), somebody(), publicKey});
    return der::sequence({signedPart, algorithm, der::bitString(Bytes(16, 0))});
}

Bytes contentInfo(const char* type, const Bytes& content) {
    return der::sequence({der::oid(type), der::element(der::contextConstructed(0), content)});
}

/// A body that is long enough to be seen: what the content key is tried on.
const Bytes& body() {
    static const Bytes text = norvauthority::bytes("What the key that was transported is tried on.");
    return text;
}

struct ContextFree {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextFree>;

void must(bool good, const char* what) {
    if (!good) {
        throw BadTask(std::string("OpenSSL's ") + what);
    }
}

/// By OpenSSL, since it is no part of what is tried.
Bytes wrapped(const Bytes& wrappingKey, const Bytes& contentKey) {
    const Context context(EVP_CIPHER_CTX_new());
    EVP_CIPHER_CTX_set_flags(context.get(), EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
    Bytes out(contentKey.size() + 16);
    int length = 0;
    must(EVP_EncryptInit_ex(context.get(), EVP_aes_256_wrap(), nullptr, wrappingKey.data(), nullptr) == 1, "wrap");
    must(EVP_EncryptUpdate(context.get(), out.data(), &length, contentKey.data(),
                           static_cast<int>(contentKey.size())) == 1,
         "wrap");
    out.resize(static_cast<std::size_t>(length));
    return out;
}

const char* gcmFor(std::size_t keyLength) {
    switch (keyLength) {
    case 16:
        return "2.16.840.1.101.3.4.1.6";
    case 24:
        return "2.16.840.1.101.3.4.1.26";
    case 32:
        return "2.16.840.1.101.3.4.1.46";
    default:
        throw BadTask("no AES-GCM with such a key");
    }
}

struct Sealed {
    Bytes nonce;
    Bytes content;
    Bytes tag;
};

/// By OpenSSL: `body()` under a content key.
Sealed sealed(const Bytes& key) {
    Sealed made{Bytes(12, 7), Bytes(body().size()), Bytes(16)};
    const EVP_CIPHER* cipher = key.size() == 16   ? EVP_aes_128_gcm()
                               : key.size() == 24 ? EVP_aes_192_gcm()
                                                  : EVP_aes_256_gcm();
    const Context context(EVP_CIPHER_CTX_new());
    int length = 0;
    must(EVP_EncryptInit_ex(context.get(), cipher, nullptr, key.data(), made.nonce.data()) == 1 &&
             EVP_EncryptUpdate(context.get(), made.content.data(), &length, body().data(),
                               static_cast<int>(body().size())) == 1 &&
             EVP_EncryptFinal_ex(context.get(), made.content.data() + length, &length) == 1 &&
             EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, 16, made.tag.data()) == 1,
         "AES-GCM");
    return made;
}

/// AuthEnvelopedData (RFC 5083) with one recipient, AES-GCM (RFC 5084).
Bytes authEnvelope(const Bytes& recipient, std::size_t keyLength, const Sealed& content) {
    const Bytes parameters =
        der::sequence({der::octetString(content.nonce),
                       der::integer(norvauthority::toHex({static_cast<unsigned char>(content.tag.size())}))});
    return contentInfo("1.2.840.113549.1.9.16.1.23",
                       der::sequence({der::integer("0"), der::set({recipient}),
                                      der::sequence({der::oid("1.2.840.113549.1.7.1"),
                                                     der::sequence({der::oid(gcmFor(keyLength)), parameters}),
                                                     der::element(der::context(0), content.content)}),
                                      der::octetString(content.tag)}));
}

/// KEKRecipientInfo (RFC 5652, 6.2.3).
Bytes wrappedRecipient(const char* algorithm, const Bytes& encryptedKey) {
    const Bytes identifier = der::sequence({der::octetString({1})});
    return der::element(der::contextConstructed(2),
                        der::concat({der::integer("4"), identifier, der::sequence({der::oid(algorithm)}),
                                     der::octetString(encryptedKey)}));
}

Json contentAsRead(CMS::EnvelopeReader& message) {
    MemoryMediaOut out;
    message.write(out);
    return {{"content", hexOf(bytesOf(out.content()))}};
}

} // namespace

Json digest(const Json& task) {
    RefHasher hasher(digestNamed(task));
    const Bytes message = octetsOf(task, "message");
    // In two pieces, so that what is kept between them counts.
    const std::size_t half = message.size() / 2;
    hasher->update(message.data(), static_cast<unsigned int>(half));
    hasher->update(message.data() + half, static_cast<unsigned int>(message.size() - half));
    hasher->finalize();
    return {{"digest", hasher->digestAsHexString()}};
}

Json signature(const Json& task) {
    const Bytes encoded = octetsOf(task, "key");
    const RefKey key(Key::PUBLIC_KEY);
    key->read(bufferOf(encoded), false);
    RefVerifier verifier(digestNamed(task));
    verifier->verificationKey(key);
    const Bytes message = octetsOf(task, "message");
    verifier->update(message.data(), static_cast<unsigned int>(message.size()));
    const Bytes value = octetsOf(task, "signature");
    return {{"valid", verifier->isValid(bufferOf(value))}};
}

Json signing(const Json& task) {
    const Bytes encoded = octetsOf(task, "key");
    const RefKey key(Key::PRIVATE_KEY);
    key->read(bufferOf(encoded), false);
    SignerRef signer(digestNamed(task));
    signer->signingKey(key);
    const Bytes message = octetsOf(task, "message");
    signer->update(message.data(), static_cast<unsigned int>(message.size()));
    return {{"signature", hexOf(bytesOf(signer->sign()))}};
}

Json messageSignature(const Json& task) {
    const Bytes content = octetsOf(task, "message");
    const Bytes digestAlgorithm = der::sequence({der::oid(task.at("digest"))});
    const Bytes certificate = certificateOf(octetsOf(task, "key"));
    const Bytes signer =
        der::sequence({der::integer("1"), der::sequence({somebody(), der::integer("1")}), digestAlgorithm,
                       octetsOf(task, "algorithm"), der::octetString(octetsOf(task, "signature"))});
    const Bytes structure =
        contentInfo("1.2.840.113549.1.7.2",
                    der::sequence({der::integer("1"), der::set({digestAlgorithm}),
                                   der::sequence({der::oid("1.2.840.113549.1.7.1"),
                                                  der::element(der::contextConstructed(0), der::octetString(content))}),
                                   der::element(der::contextConstructed(0), certificate), der::set({signer})}));
    CMS::SignedReader message{MemoryMediaIn(bufferOf(structure))};
    MemoryMediaOut out;
    message.write(out);
    const CMS::SignatureResult result = message.verdict(message.signers().at(0));
    if (result.verdict == CMS::SignatureVerdict::unsupported) {
        return {{"failed", std::string("unsupported: ") + CMS::textOf(result.reason) + " " + result.algorithm}};
    }
    return {{"valid", result.verdict == CMS::SignatureVerdict::good},
            {"reason", result.verdict == CMS::SignatureVerdict::good ? "" : CMS::textOf(result.reason)}};
}

Json blockCipher(const Json& task) {
    const auto cipher = static_cast<Cipher>(OBJ_sn2nid(task.at("cipher").get<std::string>().c_str()));
    const Bytes key = octetsOf(task, "key");
    const Bytes vector = octetsOf(task, "iv");
    Json facts;
    if (task.contains("clear")) {
        const Bytes clear = octetsOf(task, "clear");
        MemoryMediaOut secret;
        EncrypterMediaOut encrypter(cipher, bufferOf(key), bufferOf(vector));
        encrypter.attach(secret);
        encrypter.write(bufferOf(clear));
        encrypter.end();
        facts["secret"] = hexOf(bytesOf(secret.content()));
    }
    const Bytes secret = task.contains("secret") ? octetsOf(task, "secret") : octetsOf(facts, "secret");
    MemoryMediaOut clear;
    DecrypterMediaOut decrypter(cipher, bufferOf(key), bufferOf(vector));
    decrypter.attach(clear);
    try {
        decrypter.write(bufferOf(secret));
        decrypter.end();
        facts["clear"] = hexOf(bytesOf(clear.content()));
    } catch (const Exception& failure) {
        facts["failed"] = failure.asString();
    }
    return facts;
}

Json authenticatedCipher(const Json& task) {
    const Bytes contentKey = octetsOf(task, "key");
    const Bytes wrappingKey(32, 9);
    const Bytes structure =
        authEnvelope(wrappedRecipient("2.16.840.1.101.3.4.1.45", wrapped(wrappingKey, contentKey)), contentKey.size(),
                     {octetsOf(task, "iv"), octetsOf(task, "secret"), octetsOf(task, "tag")});
    CMS::EnvelopeReader message{MemoryMediaIn(bufferOf(structure))};
    if (!message.open(message.recipients().at(0), bufferOf(wrappingKey))) {
        return {{"failed", "not opened: " + message.unsupported()}};
    }
    return contentAsRead(message);
}

Json keyTransport(const Json& task) {
    const Bytes contentKey = octetsOf(task, "clear");
    const Bytes structureKey = octetsOf(task, "wrappingKey");
    if (!structureKey.empty()) {
        const char* algorithm = structureKey.size() == 16   ? "2.16.840.1.101.3.4.1.5"
                                : structureKey.size() == 24 ? "2.16.840.1.101.3.4.1.25"
                                                            : "2.16.840.1.101.3.4.1.45";
        const Bytes structure =
            authEnvelope(wrappedRecipient(algorithm, octetsOf(task, "secret")), contentKey.size(), sealed(contentKey));
        CMS::EnvelopeReader message{MemoryMediaIn(bufferOf(structure))};
        if (!message.open(message.recipients().at(0), bufferOf(structureKey))) {
            return {{"failed", "not opened: " + message.unsupported()}};
        }
        return contentAsRead(message);
    }
    const Bytes encoded = octetsOf(task, "key");
    const RefKey key(Key::PRIVATE_KEY);
    key->read(bufferOf(encoded), false);
    const Bytes certificate = certificateOf(octetsOf(task, "publicKey"));
    const NVX509::KeyCertificatePair pair(key, NVX509::CertificateFactory().readDER(bufferOf(certificate)));
    // KeyTransRecipientInfo (RFC 5652, 6.2.1)
    const Bytes recipient = der::sequence({der::integer("0"), der::sequence({somebody(), der::integer("1")}),
                                           octetsOf(task, "algorithm"), der::octetString(octetsOf(task, "secret"))});
    const Bytes structure = authEnvelope(recipient, contentKey.size(), sealed(contentKey));
    CMS::EnvelopeReader message{MemoryMediaIn(bufferOf(structure))};
    if (!message.open(message.recipients().at(0), pair)) {
        return {{"failed", "not opened: " + message.unsupported()}};
    }
    return contentAsRead(message);
}

} // namespace vectors
