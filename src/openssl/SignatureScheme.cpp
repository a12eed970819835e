#include "openssl/SignatureScheme.h"

#include "openssl/ContentCipher.h"
#include "openssl/ErrorQueue.h"
#include "openssl/RawValues.h"

#include <openssl/objects.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Element;
using framing::Elements;
using framing::Octets;
using Kind = SignatureScheme::Kind;

constexpr long defaultSaltLength = 20; // RFC 4055, 3.1
constexpr std::size_t longestPssParameters = 1024;
constexpr long longestSalt = 2048; // that of a modulus of 16384 bits

Kind kindOf(int keyType) noexcept {
    switch (keyType) {
    case NID_rsaEncryption:
    case NID_rsa:
        return Kind::rsaPkcs1;
    case NID_rsassaPss:
        return Kind::rsaPss;
    case NID_dsa:
    case NID_dsa_2:
        return Kind::dsa;
    case NID_X9_62_id_ecPublicKey:
        return Kind::ecdsa;
    case NID_ED25519:
        return Kind::ed25519;
    case NID_ED448:
        return Kind::ed448;
    default:
        return Kind::unknown;
    }
}

/// The digest that an AlgorithmIdentifier names; null for one that OpenSSL does not have.
const EVP_MD* digestOf(const X509_ALGOR* algorithm) noexcept {
    return usableDigest(OBJ_obj2nid(algorithm->algorithm));
}

using PssParametersPtr = Owned<RSA_PSS_PARAMS, RSA_PSS_PARAMS_free>;

/// RSASSA-PSS-params (RFC 4055, 3.1); false when they make no sense.
bool readPssParameters(const Element& whole, SignatureScheme& scheme) {
    const ErrorMark mark;
    if (whole.whole.size() > longestPssParameters) {
        return false;
    }
    const unsigned char* at = whole.whole.data();
    const PssParametersPtr decoded(d2i_RSA_PSS_PARAMS(nullptr, &at, static_cast<long>(whole.whole.size())));
    if (decoded == nullptr) {
        mark.throwWithoutMemory();
        return false;
    }
    scheme.digest = decoded->hashAlgorithm == nullptr ? EVP_sha1() : digestOf(decoded->hashAlgorithm);
    scheme.maskDigest = EVP_sha1();
    if (const X509_ALGOR* mask = decoded->maskGenAlgorithm; mask != nullptr) {
        scheme.maskDigest = nullptr;
        if (OBJ_obj2nid(mask->algorithm) == NID_mgf1) { // what the parameters of another one are is not known
            // OpenSSL leaves parameters of the mask undecoded until they are used.
            const AlgorithmPtr digest = algorithmInParameters(*mask);
            if (digest == nullptr) {
                return false;
            }
            scheme.maskDigest = digestOf(digest.get());
        }
    }
    const long salt = decoded->saltLength == nullptr ? defaultSaltLength : ASN1_INTEGER_get(decoded->saltLength);
    if (salt < 0 || salt > longestSalt) {
        return false;
    }
    scheme.saltLength = static_cast<int>(salt);
    return decoded->trailerField == nullptr || ASN1_INTEGER_get(decoded->trailerField) == 1;
}

/// What a signature algorithm is made of: those with SHA-3 (RFC 9688), which OpenSSL 3.0 names and does not take apart, too.
bool findParts(int nid, int& digest, int& key) noexcept {
    struct Parts {
        int nid;
        int digest;
        int key;
    };
    static constexpr std::array<Parts, 12> table{{
        {NID_RSA_SHA3_224, NID_sha3_224, NID_rsaEncryption},
        {NID_RSA_SHA3_256, NID_sha3_256, NID_rsaEncryption},
        {NID_RSA_SHA3_384, NID_sha3_384, NID_rsaEncryption},
        {NID_RSA_SHA3_512, NID_sha3_512, NID_rsaEncryption},
        {NID_ecdsa_with_SHA3_224, NID_sha3_224, NID_X9_62_id_ecPublicKey},
        {NID_ecdsa_with_SHA3_256, NID_sha3_256, NID_X9_62_id_ecPublicKey},
        {NID_ecdsa_with_SHA3_384, NID_sha3_384, NID_X9_62_id_ecPublicKey},
        {NID_ecdsa_with_SHA3_512, NID_sha3_512, NID_X9_62_id_ecPublicKey},
        {NID_dsa_with_SHA3_224, NID_sha3_224, NID_dsa},
        {NID_dsa_with_SHA3_256, NID_sha3_256, NID_dsa},
        {NID_dsa_with_SHA3_384, NID_sha3_384, NID_dsa},
        {NID_dsa_with_SHA3_512, NID_sha3_512, NID_dsa},
    }};
    const auto found = std::ranges::find(table, nid, &Parts::nid);
    if (found != table.end()) {
        digest = found->digest;
        key = found->key;
        return true;
    }
    return nid != NID_undef && OBJ_find_sigid_algs(nid, &digest, &key) == 1;
}

/// Prepares what else a scheme wants of a verification; false when the key has no part in it.
bool prepare(const SignatureScheme& scheme, const EVP_MD* algorithm, EVP_PKEY_CTX* context) noexcept {
    if (scheme.kind == Kind::rsaPss && EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PSS_PADDING) != 1) {
        return false;
    }
    if (EVP_PKEY_CTX_set_signature_md(context, algorithm) != 1) {
        return false;
    }
    return scheme.kind != Kind::rsaPss || (EVP_PKEY_CTX_set_rsa_mgf1_md(context, scheme.maskDigest) == 1 &&
                                           EVP_PKEY_CTX_set_rsa_pss_saltlen(context, scheme.saltLength) == 1);
}

Verified verifyMessage(Octets message, Octets signature, EVP_PKEY* key) noexcept {
    const DigestContextPtr context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key) != 1) {
        return Verified::impossible;
    }
    return EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(), message.size()) == 1
               ? Verified::good
               : Verified::wrong;
}

Verified verifyDigest(const SignatureScheme& scheme, const EVP_MD* algorithm, Octets digest, Octets signature,
                      EVP_PKEY* key) noexcept {
    const KeyContextPtr context(EVP_PKEY_CTX_new(key, nullptr));
    if (context == nullptr || EVP_PKEY_verify_init(context.get()) != 1 || !prepare(scheme, algorithm, context.get())) {
        return Verified::impossible;
    }
    return EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1
               ? Verified::good
               : Verified::wrong;
}

} // namespace

SignatureScheme signatureScheme(Octets algorithmIdentifier) {
    SignatureScheme scheme;
    const auto whole = framing::firstElement(algorithmIdentifier);
    if (!whole) {
        return scheme;
    }
    Elements parts(*whole);
    const auto identifier = parts.nextUniversal(framing::objectIdentifier);
    const int nid = identifier ? nidOf(identifier->whole) : NID_undef;
    if (nid == NID_rsassaPss) {
        scheme.kind = Kind::rsaPss;
        scheme.namesDigest = true;
        const auto parameters = parts.nextUniversal(framing::sequence);
        scheme.isSound = parameters && readPssParameters(*parameters, scheme);
        if (scheme.isSound && (scheme.digest == nullptr || scheme.maskDigest == nullptr)) {
            scheme.kind = Kind::unknown;
        }
        return scheme;
    }
    int digest = NID_undef;
    int key = NID_undef;
    const bool isPair = findParts(nid, digest, key);
    scheme.kind = kindOf(isPair ? key : nid);
    if (digest != NID_undef) { // what signs the message itself has none
        scheme.namesDigest = true;
        scheme.digest = usableDigest(digest);
    }
    return scheme;
}

SignatureScheme schemeOf(KeyFamily family) noexcept {
    SignatureScheme scheme;
    scheme.kind = family == KeyFamily::rsa   ? Kind::rsaPkcs1
                  : family == KeyFamily::dsa ? Kind::dsa
                  : family == KeyFamily::ec  ? Kind::ecdsa
                                             : Kind::unknown;
    return scheme;
}

bool fits(const SignatureScheme& scheme, const EVP_PKEY* key) noexcept {
    const Kind kind = kindOf(EVP_PKEY_get_base_id(key));
    return kind == scheme.kind || (scheme.kind == Kind::rsaPss && kind == Kind::rsaPkcs1);
}

bool isSigningKey(const EVP_PKEY* key) noexcept {
    return kindOf(EVP_PKEY_get_base_id(key)) != Kind::unknown;
}

Verified verify(const SignatureScheme& scheme, const EVP_MD* algorithm, Octets covered, Octets signature,
                EVP_PKEY* key) {
    const ErrorMark mark;
    const Verified verified = scheme.coversMessage() ? verifyMessage(covered, signature, key)
                                                     : verifyDigest(scheme, algorithm, covered, signature, key);
    if (verified != Verified::good) {
        mark.throwWithoutMemory();
    }
    return verified;
}

} // namespace Norvane::Crypto::openssl
