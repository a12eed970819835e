#include "openssl/SigningKeys.h"

#include "framing/Encoding.h"
#include "openssl/AlgorithmIdentifiers.h"
#include "openssl/Digests.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Signatures.h"

#include <openssl/core_names.h>
#include <openssl/objects.h>
#include <openssl/params.h>

#include <array>
#include <memory>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Encoded;

constexpr std::size_t lengthOfShake256 = 64; // RFC 8419, 2.3

/// SHAKE256 with its length in bits as the parameter: id-shake256-len (RFC 8419, 2.3), which OpenSSL has no name for.
Encoded shake256Identifier() {
    const auto identifier = objectIdentifier(std::string("2.16.840.1.101.3.4.2.18"));
    return framing::sequenceOf({identifier.value(), framing::integerOf(8 * lengthOfShake256)});
}

/// RSASSA-PSS with its parameters (RFC 4055, 3.1). DER leaves out what is the default: all of it for SHA-1.
Encoded pssIdentifier(const SignatureDigest& digest) {
    if (digest.number == NID_sha1) {
        return algorithmIdentifier(NID_rsassaPss, framing::sequenceOf({}));
    }
    const Encoded hash = algorithmIdentifier(digest.number, framing::null());
    const Encoded mask = algorithmIdentifier(NID_mgf1, hash);
    return algorithmIdentifier(NID_rsassaPss,
                               framing::sequenceOf({framing::contextOf(0, {hash}), framing::contextOf(1, {mask}),
                                                    framing::contextOf(2, {framing::integerOf(digest.length)})}));
}

/// Whether a key has that parameter. It is not copied: it may be the secret.
bool hasParameter(const EVP_PKEY* key, const char* name, unsigned int type) {
    std::array<OSSL_PARAM, 2> asked{};
    asked[0].key = name;
    asked[0].data_type = type;
    asked[0].return_size = OSSL_PARAM_UNMODIFIED;
    return EVP_PKEY_get_params(key, asked.data()) == 1 && OSSL_PARAM_modified(asked.data()) == 1;
}

bool isSha3(int digest) noexcept {
    return digest == NID_sha3_224 || digest == NID_sha3_256 || digest == NID_sha3_384 || digest == NID_sha3_512;
}

std::string kindOf(const EVP_PKEY* key) {
    const char* name = EVP_PKEY_get0_type_name(key);
    return name != nullptr ? name : shortName(EVP_PKEY_get_base_id(key));
}

/// The number of the algorithm that signs such a digest with such a key; NID_undef when none has one. OpenSSL has names
/// for ECDSA over SHA-3, but does not know what they are made of.
int signatureOf(int digest, int key) noexcept {
    int found = NID_undef;
    if (OBJ_find_sigid_by_algs(&found, digest, key) == 1) {
        return found;
    }
    switch (key == NID_X9_62_id_ecPublicKey ? digest : NID_undef) {
    case NID_sha3_224:
        return NID_ecdsa_with_SHA3_224;
    case NID_sha3_256:
        return NID_ecdsa_with_SHA3_256;
    case NID_sha3_384:
        return NID_ecdsa_with_SHA3_384;
    case NID_sha3_512:
        return NID_ecdsa_with_SHA3_512;
    default:
        return NID_undef;
    }
}

} // namespace

SignatureDigest signatureDigest(int number) {
    SignatureDigest digest;
    switch (number) {
    case NID_sha1:
    case NID_sha224:
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
    case NID_sha3_224:
    case NID_sha3_256:
    case NID_sha3_384:
    case NID_sha3_512:
        digest.algorithm = digestByNid(number);
        digest.identifier = algorithmIdentifier(number);
        digest.length = digest.algorithm == nullptr ? 0 : static_cast<std::size_t>(EVP_MD_get_size(digest.algorithm));
        break;
    case NID_shake256:
        digest.algorithm = digestByNid(number);
        digest.identifier = shake256Identifier();
        digest.length = lengthOfShake256;
        break;
    default:
        break;
    }
    digest.number = number;
    return digest;
}

DigestContextPtr SignatureDigest::start() const {
    DigestContextPtr context(EVP_MD_CTX_new());
    return context != nullptr && beginDigest(context.get(), algorithm) ? std::move(context) : nullptr;
}

std::vector<unsigned char> SignatureDigest::finish(EVP_MD_CTX* context) const {
    std::vector<unsigned char> octets(length);
    const int finished = number == NID_shake256 ? EVP_DigestFinalXOF(context, octets.data(), octets.size())
                                                : EVP_DigestFinal_ex(context, octets.data(), nullptr);
    return finished == 1 ? octets : std::vector<unsigned char>();
}

SigningKey::SigningKey(EVP_PKEY* key, RsaPadding padding, int digest) {
    const ErrorMark mark;
    if (key == nullptr || EVP_PKEY_up_ref(key) != 1) {
        m_refusal = "there is no private key";
        return;
    }
    m_key.reset(key);
    switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA_PSS:
    case EVP_PKEY_RSA:
        m_rsa = true;
        m_pss = padding == RsaPadding::pss || EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA_PSS;
        chooseRsa(digest);
        break;
    case EVP_PKEY_EC:
        chooseEc(digest);
        break;
    case EVP_PKEY_ED25519:
        chooseEdwards(digest, NID_sha512);
        break;
    case EVP_PKEY_ED448:
        chooseEdwards(digest, NID_shake256);
        break;
    default:
        m_refusal = "unsupported: keys of type " + kindOf(key) + " do not sign here";
        break;
    }
    if (m_refusal.empty() && m_algorithm.empty()) {
        m_refusal = "unsupported: keys of type " + kindOf(key) + " with the digest " + shortName(m_digest.number);
    }
    if (m_refusal.empty() && !m_signsWhole && context(EVP_PKEY_sign_init) == nullptr) {
        m_refusal = "the key does not sign with the digest " + shortName(m_digest.number) + ": " + drainErrorQueue();
    }
    if (m_refusal.empty() && !holdsPrivatePart()) {
        m_refusal = "the key has no private part";
    }
}

void SigningKey::chooseDigest(int digest) {
    m_digest = digest == NID_shake256 ? SignatureDigest() : signatureDigest(digest);
    if (m_digest.algorithm == nullptr) {
        const std::string name = shortName(digest);
        m_refusal = "unsupported: the digest " + (name.empty() ? std::to_string(digest) : name) + " for signatures";
    }
}

void SigningKey::chooseRsa(int digest) {
    if (digest == NID_undef) {
        int demanded = NID_undef;
        const bool restricted = m_pss && EVP_PKEY_get_default_digest_nid(m_key.get(), &demanded) == 2;
        digest = restricted ? demanded : NID_sha256;
    }
    chooseDigest(digest);
    if (!m_refusal.empty()) {
        return;
    }
    const int bits = EVP_PKEY_get_bits(m_key.get());
    const auto octets = [](int count) { return (count + 7) / 8; };
    // What stands around a digest: RFC 8017, 9.2 (3 octets, 8 of padding and 19 of DigestInfo) and 9.1.1.
    static constexpr std::size_t aroundSha2 = 30;
    static constexpr std::size_t aroundSha1 = 26;
    const std::size_t needed =
        m_pss ? 2 * m_digest.length + 2 : m_digest.length + (digest == NID_sha1 ? aroundSha1 : aroundSha2);
    if (octets(m_pss ? bits - 1 : bits) < static_cast<int>(needed)) {
        m_refusal =
            "the digest " + shortName(digest) + " is too long for an RSA key of " + std::to_string(bits) + " bits";
        return;
    }
    m_fixedLength = static_cast<std::size_t>(octets(bits));
    if (m_pss) {
        m_algorithm = pssIdentifier(m_digest);
    } else if (isSha3(digest)) {
        const int signature = signatureOf(digest, NID_rsaEncryption);
        m_algorithm = signature == NID_undef ? Encoded() : algorithmIdentifier(signature, framing::null());
    } else { // every receiver must know this one: RFC 3370, 3.2, and RFC 5754, 3.2
        m_algorithm = algorithmIdentifier(NID_rsaEncryption, framing::null());
    }
}

void SigningKey::chooseEc(int digest) {
    if (digest == NID_undef) {
        static constexpr int bitsOfP256 = 256;
        static constexpr int bitsOfP384 = 384;
        const int bits = EVP_PKEY_get_bits(m_key.get());
        digest = bits <= bitsOfP256 ? NID_sha256 : bits <= bitsOfP384 ? NID_sha384 : NID_sha512;
    }
    chooseDigest(digest);
    if (m_refusal.empty()) {
        const int signature = signatureOf(digest, NID_X9_62_id_ecPublicKey);
        m_algorithm = signature == NID_undef ? Encoded() : algorithmIdentifier(signature);
    }
}

void SigningKey::chooseEdwards(int digest, int demanded) {
    if (digest != NID_undef && digest != demanded) {
        m_refusal =
            kindOf(m_key.get()) + " signs with the digest " + shortName(demanded) + ", not with " + shortName(digest);
        return;
    }
    m_signsWhole = true;
    m_digest = signatureDigest(demanded);
    m_fixedLength = static_cast<std::size_t>(EVP_PKEY_get_size(m_key.get()));
    m_algorithm = algorithmIdentifier(EVP_PKEY_get_base_id(m_key.get()));
}

KeyContextPtr SigningKey::context(int (*begin)(EVP_PKEY_CTX*)) const {
    KeyContextPtr made(EVP_PKEY_CTX_new(m_key.get(), nullptr));
    EVP_PKEY_CTX* const context = made.get();
    const bool ready =
        context != nullptr && begin(context) == 1 &&
        (!m_rsa || EVP_PKEY_CTX_set_rsa_padding(context, m_pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) == 1) &&
        EVP_PKEY_CTX_set_signature_md(context, m_digest.algorithm) == 1 &&
        (!m_pss || (EVP_PKEY_CTX_set_rsa_pss_saltlen(context, RSA_PSS_SALTLEN_DIGEST) == 1 &&
                    EVP_PKEY_CTX_set_rsa_mgf1_md(context, m_digest.algorithm) == 1));
    return ready ? std::move(made) : nullptr;
}

bool SigningKey::holdsPrivatePart() const {
    const bool found = m_signsWhole ? hasParameter(m_key.get(), OSSL_PKEY_PARAM_PRIV_KEY, OSSL_PARAM_OCTET_STRING)
                       : m_rsa      ? hasParameter(m_key.get(), OSSL_PKEY_PARAM_RSA_D, OSSL_PARAM_UNSIGNED_INTEGER)
                                    : hasParameter(m_key.get(), OSSL_PKEY_PARAM_PRIV_KEY, OSSL_PARAM_UNSIGNED_INTEGER);
    // A key in hardware shows nothing of itself: it is asked to sign once.
    const std::vector<unsigned char> trial(m_digest.length);
    return found || !(m_signsWhole ? signText(trial) : signDigest(trial)).empty();
}

std::vector<unsigned char> SigningKey::signDigest(framing::Octets digest) const {
    // Twice, since a wrong signature renews what made it wrong.
    for (int turn = 0; turn < 2; ++turn) {
        const KeyContextPtr signing = context(EVP_PKEY_sign_init);
        std::vector<unsigned char> signature(static_cast<std::size_t>(EVP_PKEY_get_size(m_key.get())));
        std::size_t length = signature.size();
        if (signing == nullptr ||
            EVP_PKEY_sign(signing.get(), signature.data(), &length, digest.data(), digest.size()) != 1 ||
            !isLengthOfSignature(m_key.get(), length)) {
            return {};
        }
        signature.resize(length);
        if (!m_rsa) {
            return signature;
        }
        const ErrorMark mark;
        const KeyContextPtr checking = context(EVP_PKEY_verify_init);
        if (checking != nullptr &&
            EVP_PKEY_verify(checking.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1) {
            return signature;
        }
        renewBlinding(m_key.get());
    }
    return {};
}

std::vector<unsigned char> SigningKey::signText(framing::Octets text) const {
    if (!m_signsWhole) {
        const DigestContextPtr digesting = m_digest.start();
        const bool fed = digesting != nullptr && EVP_DigestUpdate(digesting.get(), text.data(), text.size()) == 1;
        const std::vector<unsigned char> digest = fed ? m_digest.finish(digesting.get()) : std::vector<unsigned char>();
        return digest.empty() ? digest : signDigest(digest);
    }
    const DigestContextPtr context(EVP_MD_CTX_new());
    std::vector<unsigned char> signature(m_fixedLength);
    std::size_t length = signature.size();
    if (context == nullptr || EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, m_key.get()) != 1 ||
        EVP_DigestSign(context.get(), signature.data(), &length, text.data(), text.size()) != 1 ||
        !isLengthOfSignature(m_key.get(), length)) {
        return {};
    }
    signature.resize(length);
    return signature;
}

} // namespace Norvane::Crypto::openssl
