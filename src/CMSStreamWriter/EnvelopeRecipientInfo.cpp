#include "CMSStreamWriter/EnvelopeRecipientInfo.h"

#include "failures/Raise.h"
#include "openssl/AlgorithmIdentifiers.h"

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rand.h>

#include <array>
#include <string>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::Octets;
using openssl::algorithmIdentifier;
using openssl::RecipientKeyKind;
using openssl::Secret;

/// What every kind needs, and which recipient it is.
struct Message {
    const openssl::ContentAlgorithm& algorithm;
    const Secret& contentKey;
    const EnvelopeRecipient::State& recipient;
    std::size_t number;

    [[nodiscard]] std::string who() const {
        return "recipient " + std::to_string(number) + " (" + recipient.name() + "): ";
    }
};

bool isByKeyIdentifier(const CertificateKey& key) noexcept {
    return key.namedBy == NamedBy::subjectKeyIdentifier;
}

// Key transport (6.2.1)

Encoded digestIdentifier(Hasher::Type digest) {
    return algorithmIdentifier(digest, framing::null()); // with NULL: RFC 4055, 2.1
}

/// RSAES-OAEP-params (RFC 4055, 4.1), in which what is default is left out.
Encoded oaepIdentifier(const OaepParameters& oaep) {
    const Hasher::Type maskDigest = oaep.maskDigest.value_or(oaep.digest);
    Encoded digest;
    Encoded mask;
    Encoded label;
    if (oaep.digest != Hasher::SHA1) {
        digest = framing::contextOf(0, {digestIdentifier(oaep.digest)});
    }
    if (maskDigest != Hasher::SHA1) {
        mask = framing::contextOf(1, {algorithmIdentifier(NID_mgf1, digestIdentifier(maskDigest))});
    }
    if (!oaep.label.empty()) {
        label =
            framing::contextOf(2, {algorithmIdentifier(NID_pSpecified, framing::octetStringOf(octetsOf(oaep.label)))});
    }
    return algorithmIdentifier(NID_rsaesOaep, framing::sequenceOf({digest, mask, label}));
}

RecipientInfoElement encode(const KeyTransport& how, const Message& message) {
    if (how.room < static_cast<int>(message.contentKey.size())) {
        failures::raise(failures::envelopeWriter, message.who() + "an RSA key of " +
                                                      std::to_string(EVP_PKEY_get_bits(how.to.key)) +
                                                      " bits is too short for the content key and its padding");
    }
    const auto encrypted = how.encryption.encrypt(message.contentKey.octets());
    if (!encrypted) {
        failures::raiseWithErrors(failures::envelopeWriter, message.who());
    }
    const bool byKeyIdentifier = isByKeyIdentifier(how.to);
    const unsigned int version = byKeyIdentifier ? 2 : 0;
    const Encoded name =
        byKeyIdentifier ? framing::primitive(framing::TagClass::contextSpecific, 0, how.to.name) : how.to.name;
    return {framing::sequenceOf(
                {framing::integerOf(version), name,
                 how.oaep ? oaepIdentifier(*how.oaep) : algorithmIdentifier(NID_rsaEncryption, framing::null()),
                 framing::octetStringOf(*encrypted)}),
            version};
}

// Key agreement (6.2.2; RFC 5753; RFC 8418)

struct Scheme {
    Hasher::Type digest;
    int standard;
    int cofactor;
    const char* x25519; ///< of HKDF, for which OpenSSL 3.0 has no number
};
constexpr std::array<Scheme, 5> s_schemes{{
    {Hasher::SHA1, NID_dhSinglePass_stdDH_sha1kdf_scheme, NID_dhSinglePass_cofactorDH_sha1kdf_scheme, nullptr},
    {Hasher::SHA224, NID_dhSinglePass_stdDH_sha224kdf_scheme, NID_dhSinglePass_cofactorDH_sha224kdf_scheme, nullptr},
    {Hasher::SHA256, NID_dhSinglePass_stdDH_sha256kdf_scheme, NID_dhSinglePass_cofactorDH_sha256kdf_scheme,
     "1.2.840.113549.1.9.16.3.19"},
    {Hasher::SHA384, NID_dhSinglePass_stdDH_sha384kdf_scheme, NID_dhSinglePass_cofactorDH_sha384kdf_scheme,
     "1.2.840.113549.1.9.16.3.20"},
    {Hasher::SHA512, NID_dhSinglePass_stdDH_sha512kdf_scheme, NID_dhSinglePass_cofactorDH_sha512kdf_scheme,
     "1.2.840.113549.1.9.16.3.21"},
}};

Encoded schemeIdentifier(const KeyAgreement& how) {
    for (const Scheme& scheme : s_schemes) {
        if (scheme.digest != how.digest) {
            continue;
        }
        if (how.to.kind == RecipientKeyKind::x25519) {
            return openssl::objectIdentifier(std::string(scheme.x25519)).value_or(Encoded());
        }
        return openssl::objectIdentifier(how.cofactor ? scheme.cofactor : scheme.standard);
    }
    return {};
}

std::size_t wrappingKeyLength(int nid) noexcept {
    switch (nid) {
    case NID_id_aes128_wrap:
        return 16;
    case NID_id_aes256_wrap:
        return 32;
    default: // AES-192, triple DES
        return 24;
    }
}

/// KeyWrapAlgorithm: parameters are left out for AES (RFC 3565, 2.3.2), NULL for triple DES (RFC 3370, 4.3.1).
Encoded wrapIdentifier(int nid) {
    return nid == NID_id_smime_alg_CMS3DESwrap ? algorithmIdentifier(nid, framing::null()) : algorithmIdentifier(nid);
}

/// ECC-CMS-SharedInfo (RFC 5753, 7.2): what the derived key is for.
Encoded sharedInfo(const Encoded& wrapping, std::size_t keyLength) {
    const std::array<unsigned char, 4> bits{0, 0, static_cast<unsigned char>(keyLength * 8U >> 8U),
                                            static_cast<unsigned char>(keyLength * 8U)};
    return framing::sequenceOf({wrapping, framing::contextOf(2, {framing::octetStringOf(bits)})});
}

RecipientInfoElement encode(const KeyAgreement& how, const Message& message) {
    constexpr unsigned int version = 3;
    const bool isX25519 = how.to.kind == RecipientKeyKind::x25519;
    const int wrap = message.algorithm.keyWrapping;
    const Encoded wrapping = wrapIdentifier(wrap);
    Encoded ephemeral;
    Secret secret;
    Secret wrappingKey(wrappingKeyLength(wrap));
    const Encoded info = sharedInfo(wrapping, wrappingKey.size());
    const auto derive = isX25519 ? openssl::deriveHkdf : openssl::deriveX963;
    std::optional<Encoded> encrypted;
    if (openssl::agreeWith(how.to.key, ephemeral, secret) &&
        derive(recipientDigest(how.digest), secret, info, wrappingKey)) {
        encrypted = openssl::wrapKey(wrap, wrappingKey.octets(), message.contentKey.octets());
    }
    if (!encrypted) {
        failures::raiseWithErrors(failures::envelopeWriter, message.who());
    }
    const Encoded originator = framing::contextOf( // parameters may be left out: the recipient knows the curve
        0, {framing::contextOf(1, {algorithmIdentifier(isX25519 ? NID_X25519 : NID_X9_62_id_ecPublicKey),
                                   framing::bitStringOf(ephemeral)})});
    const Encoded name =
        isByKeyIdentifier(how.to) ? framing::contextOf(0, {framing::octetStringOf(how.to.name)}) : how.to.name;
    const Encoded key = framing::sequenceOf({name, framing::octetStringOf(*encrypted)});
    return {framing::contextOf(1, {framing::integerOf(version), originator,
                                   framing::sequenceOf({schemeIdentifier(how), wrapping}), framing::sequenceOf({key})}),
            version};
}

// Key-encryption keys (6.2.3)

int wrapForKey(std::size_t length) noexcept {
    constexpr std::size_t ofAes128 = 16;
    constexpr std::size_t ofAes192 = 24;
    return length == ofAes128 ? NID_id_aes128_wrap : length == ofAes192 ? NID_id_aes192_wrap : NID_id_aes256_wrap;
}

RecipientInfoElement encode(const SharedKey& how, const Message& message) {
    constexpr unsigned int version = 4;
    const int wrap = wrapForKey(how.key.length());
    const auto encrypted = openssl::wrapKey(wrap, octetsOf(how.key), message.contentKey.octets());
    if (!encrypted) {
        failures::raiseWithErrors(failures::envelopeWriter, message.who());
    }
    return {framing::contextOf(2, {framing::integerOf(version),
                                   framing::sequenceOf({framing::octetStringOf(octetsOf(how.identifier))}),
                                   wrapIdentifier(wrap), framing::octetStringOf(*encrypted)}),
            version};
}

// Passwords (6.2.4; RFC 3211)

int hmacOf(Hasher::Type digest) noexcept {
    switch (digest) {
    case Hasher::SHA224:
        return NID_hmacWithSHA224;
    case Hasher::SHA384:
        return NID_hmacWithSHA384;
    case Hasher::SHA512:
        return NID_hmacWithSHA512;
    default:
        return NID_hmacWithSHA256;
    }
}

/// The content of a KeyDerivationAlgorithmIdentifier, which stands under a tag of its own. HMAC with SHA-1 is default.
Encoded derivation(const PasswordParameters& parameters, Octets salt) {
    Encoded function;
    if (parameters.digest != Hasher::SHA1) {
        function = algorithmIdentifier(hmacOf(parameters.digest), framing::null());
    }
    return framing::contextOf(
        0, {openssl::objectIdentifier(NID_id_pbkdf2),
            framing::sequenceOf({framing::octetStringOf(salt), framing::integerOf(parameters.iterations), function})});
}

RecipientInfoElement encode(const SharedPassword& how, const Message& message) {
    constexpr unsigned int version = 0;
    const EVP_CIPHER* cipher = message.algorithm.passwordCipher();
    std::array<unsigned char, 16> salt{};
    std::array<unsigned char, EVP_MAX_IV_LENGTH> vectorRoom{};
    const std::span<unsigned char> vector(vectorRoom.data(),
                                          static_cast<std::size_t>(EVP_CIPHER_get_iv_length(cipher)));
    Secret wrappingKey(static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher)));
    std::optional<Encoded> encrypted;
    if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) == 1 &&
        RAND_bytes(vector.data(), static_cast<int>(vector.size())) == 1 &&
        openssl::derivePbkdf2(recipientDigest(how.parameters.digest), octetsOf(how.password), salt,
                              how.parameters.iterations, wrappingKey)) {
        encrypted = openssl::wrapUnderPassword(cipher, wrappingKey.octets(), vector, message.contentKey.octets());
    }
    if (!encrypted) {
        failures::raiseWithErrors(failures::envelopeWriter, message.who());
    }
    const Encoded inner = algorithmIdentifier(message.algorithm.passwordCipherNid, framing::octetStringOf(vector));
    return {
        framing::contextOf(3, {framing::integerOf(version), derivation(how.parameters, salt),
                               algorithmIdentifier(NID_id_alg_PWRI_KEK, inner), framing::octetStringOf(*encrypted)}),
        version, true};
}

} // namespace

RecipientInfoElement recipientInfo(const EnvelopeRecipient::State& recipient, std::size_t number,
                                   const openssl::ContentAlgorithm& algorithm, const Secret& contentKey) {
    const Message message{algorithm, contentKey, recipient, number};
    return std::visit([&](const auto& how) { return encode(how, message); }, recipient.how);
}

} // namespace Norvane::Crypto::CMS
