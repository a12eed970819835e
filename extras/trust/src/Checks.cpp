#include "Checks.h"

#include "Lists.h"
#include "Wording.h"

#include <norvcrypto/CMSVerification.h>

#include <openssl/core_names.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace Norvane::Crypto::Trust::detail {

namespace {

std::uint64_t bitsOf(const EVP_PKEY* key, const char* parameter) {
    BIGNUM* number = nullptr;
    const bool there = EVP_PKEY_get_bn_param(key, parameter, &number) == 1;
    const Owned<BIGNUM> owned(number);
    return there ? static_cast<std::uint64_t>(BN_num_bits(number)) : 0;
}

std::uint64_t bitsOf(const EVP_PKEY* key) {
    return static_cast<std::uint64_t>(std::max(EVP_PKEY_get_bits(key), 0));
}

bool isRsa(const EVP_PKEY* key) {
    const int kind = EVP_PKEY_get_base_id(key);
    return kind == EVP_PKEY_RSA || kind == EVP_PKEY_RSA_PSS;
}

bool isCurve(const EVP_PKEY* key) {
    const std::array curves{EVP_PKEY_EC,     EVP_PKEY_ED25519, EVP_PKEY_ED448,
                            EVP_PKEY_X25519, EVP_PKEY_X448,    EVP_PKEY_SM2};
    return std::find(curves.begin(), curves.end(), EVP_PKEY_get_base_id(key)) != curves.end();
}

std::string kindOf(const EVP_PKEY* key) {
    const char* const name = EVP_PKEY_get0_type_name(key);
    return name == nullptr ? "a key" : name;
}

/// What one signature takes to check, in squarings of a 1024-bit number.
std::uint64_t workOf(const EVP_PKEY* key) {
    const std::uint64_t bits = bitsOf(key);
    if (isCurve(key)) { // a doubling for each bit, of numbers of as many bits, each of many multiplications
        constexpr unsigned int scale = 14;
        return bits * bits * bits >> scale;
    }
    constexpr unsigned int scale = 20;
    if (isRsa(key)) {
        return bits * bits * bitsOf(key, OSSL_PKEY_PARAM_RSA_E) >> scale;
    }
    // Two powers with one run of squarings.
    const std::uint64_t order = std::max<std::uint64_t>(bitsOf(key, OSSL_PKEY_PARAM_FFC_Q), 1);
    return bits * bits * (order + order / 2) >> scale;
}

} // namespace

std::string tooLarge(const X509* certificate) {
    const QuietQuestion quiet;
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    if (key == nullptr || isCurve(key)) {
        return {};
    }
    constexpr std::uint64_t largestModulus = 16384;
    constexpr std::uint64_t longestExponent = 64;
    if (bitsOf(key) <= largestModulus && isRsa(key)) {
        const std::uint64_t exponent = bitsOf(key, OSSL_PKEY_PARAM_RSA_E);
        return exponent > longestExponent ? "RSA with an exponent of " + std::to_string(exponent) + " bits" : "";
    }
    const bool sound = bitsOf(key) <= largestModulus && workOf(key) <= CMS::maximumKeyWork;
    return sound ? "" : kindOf(key) + ", " + std::to_string(bitsOf(key)) + " bits";
}

std::string unsupported(const X509_ALGOR* algorithm) {
    const QuietQuestion quiet;
    const ASN1_OBJECT* object = nullptr;
    X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
    const int nid = OBJ_obj2nid(object);
    int digest = NID_undef;
    int key = NID_undef;
    if (nid == NID_undef || OBJ_find_sigid_algs(nid, &digest, &key) != 1) {
        return textOf(object);
    }
    if (digest == NID_undef) { // EdDSA has none to choose, RSASSA-PSS has it in its parameters
        return key == NID_rsassaPss || key == NID_ED25519 || key == NID_ED448 ? "" : textOf(object);
    }
    const Owned<EVP_MD> there(EVP_MD_fetch(nullptr, OBJ_nid2sn(digest), nullptr));
    return there ? "" : textOf(object);
}

bool algorithmsDiffer(const X509* certificate) {
    const X509_ALGOR* outer = nullptr;
    X509_get0_signature(nullptr, &outer, certificate);
    return X509_ALGOR_cmp(outer, X509_get0_tbs_sigalg(certificate)) != 0;
}

std::optional<SigningDigest> signingDigestOf(X509* certificate) {
    const QuietQuestion quiet;
    int nid = NID_undef;
    static_cast<void>(X509_get_signature_info(certificate, &nid, nullptr, nullptr, nullptr));
    const EVP_MD* const digest = EVP_get_digestbynid(nid);
    if (digest == nullptr) {
        return std::nullopt;
    }
    constexpr unsigned int octet = 8;
    return SigningDigest{OBJ_nid2sn(nid), static_cast<unsigned int>(EVP_MD_get_size(digest)) * octet};
}

std::string tooShort(const X509* certificate, unsigned int minimumRsaBits, unsigned int minimumEcBits) {
    const QuietQuestion quiet;
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    if (key == nullptr || bitsOf(key) >= (isCurve(key) ? minimumEcBits : minimumRsaBits)) {
        return {};
    }
    return kindOf(key) + ", " + std::to_string(bitsOf(key)) + " bits";
}

std::string unknownCriticalExtensions(const X509* certificate) {
    constexpr int most = 5;
    std::string names;
    int count = 0;
    for (int i = 0; i < X509_get_ext_count(certificate) && count < most; ++i) {
        X509_EXTENSION* const one = X509_get_ext(certificate, i);
        if (X509_EXTENSION_get_critical(one) != 0 && X509_supported_extension(one) == 0) {
            names += (count++ == 0 ? "" : ", ") + textOf(X509_EXTENSION_get_object(one));
        }
    }
    return names;
}

bool extendedUsageAllowsMail(X509* certificate) {
    return (X509_get_extended_key_usage(certificate) & (XKU_SMIME | XKU_ANYEKU)) != 0; // all bits when it is absent
}

bool usageAllowsMail(X509* certificate, bool sign) {
    const std::uint32_t usage = X509_get_key_usage(certificate); // all bits when it is absent
    if (sign) {
        return (usage & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) != 0;
    }
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    const bool agrees = key != nullptr && (isCurve(key) || EVP_PKEY_get_base_id(key) == EVP_PKEY_DH ||
                                           EVP_PKEY_get_base_id(key) == EVP_PKEY_DHX);
    return (usage & (agrees ? KU_KEY_AGREEMENT | KU_KEY_ENCIPHERMENT : KU_KEY_ENCIPHERMENT)) != 0;
}

Effort effortOf(STACK_OF(X509) * chain) {
    const QuietQuestion quiet;
    Effort work;
    std::uint64_t names = 0;
    std::uint64_t nameOctets = 0;
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        const X509* const one = sk_X509_value(chain, i);
        const EVP_PKEY* const key = i == 0 ? nullptr : X509_get0_pubkey(one);
        work.keys += key == nullptr ? 0 : workOf(key);
        const X509_EXTENSION* const constraints = extensionOf(one, NID_name_constraints);
        if (constraints != nullptr) {
            // Two lists of trees of one name each, of more than one leaf when it is a directory's.
            const std::uint64_t count = leavesOf(constraints);
            work.pairs += count * names;
            work.octets += count * nameOctets + octetsOf(constraints) * names;
        }
        const X509_EXTENSION* const alternative = extensionOf(one, NID_subject_alt_name);
        const auto entries = static_cast<std::uint64_t>(X509_NAME_entry_count(X509_get_subject_name(one)));
        names += elementsOf(alternative) + entries + 1;
        std::size_t subject = 0;
        static_cast<void>(X509_NAME_get0_der(X509_get_subject_name(one), nullptr, &subject));
        nameOctets += octetsOf(alternative) + subject;
        const std::uint64_t policies =
            elementsOf(extensionOf(one, NID_certificate_policies)) + elementsOf(extensionOf(one, NID_policy_mappings));
        work.policies += policies * policies;
    }
    return work;
}

std::string revocationReasonOf(const X509_REVOKED* entry) {
    constexpr const char* reasons[] = {"",
                                       " (its key became known)",
                                       " (the key of its authority became known)",
                                       " (its holder changed affiliation)",
                                       " (another one replaced it)",
                                       " (it is not needed any more)",
                                       " (it is on hold)",
                                       "",
                                       "",
                                       " (its holder lost a privilege)",
                                       " (the key of the attribute authority became known)"};
    const QuietQuestion quiet;
    auto* const coded =
        static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr));
    const long number = coded == nullptr ? 0 : ASN1_ENUMERATED_get(coded);
    ASN1_ENUMERATED_free(coded);
    return number < 0 || number >= static_cast<long>(std::size(reasons)) ? "" : reasons[number];
}

} // namespace Norvane::Crypto::Trust::detail
