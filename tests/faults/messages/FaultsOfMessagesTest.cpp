// Messages signed, verified, encrypted and decrypted, certificates, lists and keys read, while memory runs out, streams fail
// and the process forks.

#include "Operations.h"

#include "support/SignedMessages.h"

namespace {

using namespace faultsofmessages;

const Bytes& otherBody() {
    static const Bytes bytes = [] {
        Bytes changed = body();
        changed[1500] ^= 1U;
        return changed;
    }();
    return bytes;
}
Addressee addressee(const std::string& name) {
    for (const Addressee& one : addressees()) {
        if (one.name == name) {
            return one;
        }
    }
    throw std::out_of_range(name);
}

/// Attached, with an attribute of two values; sent out of order, or as signed.
Bytes withTwoValues(bool inOrder) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    // The shortest comes first in DER.
    signer.attributes->insert(signer.attributes->begin(),
                              attribute("1.2.3.4", {norvauthority::der::octetString(Bytes(3, 'a')),
                                                    norvauthority::der::octetString(Bytes(5, 'b'))}));
    if (!inOrder) {
        const std::vector<Bytes> reversed(signer.attributes->rbegin(), signer.attributes->rend());
        signer.sentAttributes = norvauthority::der::concat(reversed);
    }
    return attachedBy(signer, body());
}

std::vector<Operation> operations() {
    Norvane::Crypto::initialize();
    const Bytes detached = signedByOpenssl(alice(), body(), "SHA256", CMS_DETACHED);
    const Bytes attached = signedByOpenssl(curve(), body(), "SHA256", CMS_STREAM);
    Bytes forged = detached;
    forged[forged.size() - 9] ^= 1U; // of the signature
    const auto keys = storeOfKeys({&alice()});
    const auto notHis = storeOfKeys({&bob()});
    const Bytes forAlice = encryptedByOpenssl({&alice()}, body(), EVP_aes_128_cbc(), CMS_STREAM);
    const Bytes gcm = written({EnvelopeRecipient(certificateOf(alice()))}, ContentCipher::aes256Gcm, {}, body());
    Bytes changed = gcm;
    changed[changed.size() - 3] ^= 1U; // of the tag
    const Bytes agreed = written({EnvelopeRecipient(certificateOf(curve()))}, ContentCipher::aes128Cbc, {}, body());
    const auto secret = addressee("password");
    const Bytes underPassword = written({secret.recipient}, ContentCipher::aes256Gcm, {}, body());
    const auto withPair = [](const Identity& who) {
        const auto lookup = std::make_shared<CMS::KeyListLookup>(std::list<NVX509::KeyCertificatePair>{pairOf(who)});
        return [lookup](EnvelopeReader& reader) { return reader.open(*lookup); };
    };
    const auto withPassword = [](const std::string& word) {
        return [word](EnvelopeReader& reader) {
            return reader.openWithPassword(reader.recipients().front(), bufferOf(bytesOf(word)));
        };
    };
    const std::string text = textOf(body());
    return {
        signsAsPrescribed(),
        signsADigest(),
        signs("RSA", alice(), [](auto&) {}),
        signs("detached, ECDSA", curve(), [](auto& options) { options.content = SignedWriter::Content::detached; }),
        signs("DER, ECDSA, spilled", curve(), [](auto& options) { options.encoding = SignedWriter::Encoding::der; }),
        signs("PSS", alice(), [](auto& options) { options.signers.front().rsaScheme = SignedWriter::RsaScheme::pss; }),
        verifiesAsPrescribed("good", detached, body(), false),
        verifiesAsPrescribed("of another body", detached, otherBody(), true),
        verifiesAsPrescribed("forged", forged, body(), true),
        verifies("good", detached, body(), false),
        verifies("of another body", detached, otherBody(), true),
        verifies("forged", forged, body(), true),
        verifies("good, an attribute of two values", withTwoValues(true), body(), false),
        readsSigned("good", detached, text, false),
        readsSigned("good, attributes out of order", withTwoValues(false), text, false),
        readsSigned("good, ECDSA, attached", attached, text, false),
        readsSigned("of another body", detached, textOf(otherBody()), true),
        readsSigned("forged", forged, text, true),
        encryptsAsPrescribed(),
        encrypts("RSA, CBC", addressee("rsa"), ContentCipher::aes128Cbc, EnvelopeEncoding::ber),
        encrypts("ECDH, GCM", addressee("P-256"), ContentCipher::aes256Gcm, EnvelopeEncoding::ber),
        encrypts("OAEP, DER", addressee("oaep"), ContentCipher::aes256Cbc, EnvelopeEncoding::der),
        encrypts("password", addressee("password"), ContentCipher::aes256Gcm, EnvelopeEncoding::ber),
        decryptsAsPrescribed("good", forAlice, keys, false),
        decryptsAsPrescribed("with the key of another", forAlice, notHis, true),
        decryptsAsPrescribed("cut off", Bytes(forAlice.begin(), forAlice.end() - 100), keys, true),
        readsEnvelope("RSA, CBC", forAlice, withPair(alice()), false),
        readsEnvelope("GCM", gcm, withPair(alice()), false),
        readsEnvelope("GCM, changed", changed, withPair(alice()), true),
        readsEnvelope("GCM, cut off", Bytes(gcm.begin(), gcm.end() - 20), withPair(alice()), true),
        readsEnvelope("ECDH", agreed, withPair(curve()), false),
        readsEnvelope("with the key of another", gcm, withPair(bob()), true),
        readsEnvelope("password", underPassword, withPassword(password), false),
        readsEnvelope("another password", underPassword, withPassword("another"), true),
        readsCertificate(),
        readsCertificates(),
        readsList(),
        readsKey("secret", false),
        readsKey("another", true),
        hashes()};
}

NORV_FAULTS(Messages, operations);

} // namespace
