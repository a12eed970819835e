#pragma once

// What strangers can send that costs OpenSSL far more than its size, and ordinary things that look much like it.

#include <authority/Authority.h>
#include <authority/Der.h>

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace norvtest {

/// An elliptic curve key whose public half names its curve, or spells its parameters out.
inline norvauthority::Key curveKey(const std::string& curve, bool explicitParameters) {
    const auto require = [](bool done) {
        if (!done) {
            throw std::runtime_error("no such key");
        }
    };
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr), EVP_PKEY_CTX_free);
    require(context && EVP_PKEY_keygen_init(context.get()) == 1);
    require(EVP_PKEY_CTX_set_group_name(context.get(), curve.c_str()) == 1);
    require(EVP_PKEY_CTX_set_ec_param_enc(context.get(), explicitParameters ? OPENSSL_EC_EXPLICIT_CURVE
                                                                            : OPENSSL_EC_NAMED_CURVE) == 1);
    EVP_PKEY* made = nullptr;
    require(EVP_PKEY_generate(context.get(), &made) == 1);
    const norvauthority::Key key = norvauthority::Key::of(made);
    EVP_PKEY_free(made);
    return key;
}

/// A certificate with a key on a curve that is spelled out.
inline const norvauthority::Identity& explicitIdentity() {
    static const auto identity =
        norvauthority::issue({.subject = {{"CN", "Explicit"}}, .key = curveKey("P-256", true)});
    return identity;
}

/// A certificate with `points` distribution points relative to an issuer of `entries` entries.
inline norvauthority::Certificate relativePoints(std::size_t points, std::size_t entries,
                                                 const norvauthority::Key& key) {
    norvauthority::Name name;
    for (std::size_t i = 0; i < entries; ++i) {
        name.add("OU", "unit");
    }
    norvauthority::DistributionPoint point;
    point.name.emplace();
    point.name->relative = norvauthority::Name{{"CN", "list"}};
    return norvauthority::issue({.subject = name, .key = key, .crlDistributionPoints = {points, point}}).certificate;
}

/// A SignedData of certificates alone (RFC 5652, 5.1), as DER.
inline norvauthority::Bytes certificatesOnly(const std::vector<norvauthority::Bytes>& certificates) {
    namespace der = norvauthority::der;
    const norvauthority::Bytes data = der::sequence({der::oid("1.2.840.113549.1.7.1")});
    const norvauthority::Bytes signedData =
        der::sequence({der::integer("1"), der::set({}), data,
                       der::element(der::contextConstructed(0), der::concat(certificates)), der::set({})});
    return der::sequence({der::oid("1.2.840.113549.1.7.2"), der::element(der::contextConstructed(0), signedData)});
}

/// The same octets with the constructed bit taken from each element whose header begins so, as hexadecimal digits tell, and whose
/// content begins with `first`. OpenSSL does not look for the bit where it decodes a SET OF or a SEQUENCE OF.
inline norvauthority::Bytes asIfPrimitive(norvauthority::Bytes octets, const std::string& header,
                                          const norvauthority::Bytes& first) {
    const norvauthority::Bytes beginning = norvauthority::fromHex(header);
    bool found = false;
    for (auto at = octets.begin(); (at = std::search(at, octets.end(), first.begin(), first.end())) != octets.end();
         ++at) {
        for (std::size_t size = 2; size <= 5 && std::cmp_less_equal(size, at - octets.begin()); ++size) {
            const auto start = at - static_cast<std::ptrdiff_t>(size);
            if (std::equal(beginning.begin(), beginning.end(), start) &&
                size == 2U + ((start[1] & 0x80U) != 0 ? start[1] & 0x7FU : 0U)) {
                *start &= 0xDFU;
                found = true;
            }
        }
    }
    return found ? octets : throw std::runtime_error("no such element");
}

/// The same element and all elements in it in the indefinite form of BER.
inline norvauthority::Bytes indefinite(const norvauthority::Bytes& der) {
    norvauthority::Bytes ber;
    std::size_t at = 0;
    while (at < der.size()) {
        std::size_t length = der[at + 1];
        std::size_t header = 2;
        if (length >= 0x80) {
            const std::size_t octets = length & 0x7FU;
            length = 0;
            for (std::size_t i = 0; i < octets; ++i) {
                length = length << 8U | der[at + 2 + i];
            }
            header += octets;
        }
        const auto begin = der.begin() + static_cast<std::ptrdiff_t>(at);
        const auto content = begin + static_cast<std::ptrdiff_t>(header);
        const auto end = content + static_cast<std::ptrdiff_t>(length);
        if ((der[at] & 0x20U) != 0) {
            ber.insert(ber.end(), {der[at], 0x80});
            norvauthority::der::append(ber, indefinite({content, end}));
            ber.insert(ber.end(), {0, 0});
        } else {
            ber.insert(ber.end(), begin, end);
        }
        at += header + length;
    }
    return ber;
}

/// An encrypted private key (PBES2 of RFC 8018) in name. \param derivation the function that makes a key of the passphrase
inline norvauthority::Bytes sealed(const norvauthority::Bytes& derivation,
                                   const std::string& cipher = "2.16.840.1.101.3.4.1.42") {
    using namespace norvauthority::der;
    using norvauthority::Bytes;
    return sequence({sequence({oid("1.2.840.113549.1.5.13"),
                               sequence({derivation, sequence({oid(cipher), octetString(Bytes(16))})})}),
                     octetString(Bytes(64))});
}

/// PBKDF2. \param iterations hexadecimal
inline norvauthority::Bytes pbkdf2(const std::string& iterations, const std::string& hash = "1.2.840.113549.2.9") {
    using namespace norvauthority::der;
    return sequence({oid("1.2.840.113549.1.5.12"), sequence({octetString(norvauthority::Bytes(8, 1)),
                                                             integer(iterations), sequence({oid(hash), null()})})});
}

/// The passphrase would be hashed once more than is allowed.
inline norvauthority::Bytes sealedWithTooManyIterations() {
    return sealed(pbkdf2("02faf081")); // 50,000,001
}

/// Encrypted private keys that OpenSSL has no means to decrypt, whatever the passphrase.
inline std::vector<norvauthority::Bytes> sealedInUnsupportedWays() {
    using namespace norvauthority::der;
    using norvauthority::Bytes;
    const Bytes scryptOf64MiB =
        sequence({oid("1.3.6.1.4.1.11591.4.11"),
                  sequence({octetString(Bytes(8)), integer("010000"), integer("8"), integer("1")})});
    return {sequence({sequence({oid("1.2.840.113549.1.5.127"), null()}), octetString(Bytes(64))}),
            sealed(sequence({oid("1.2.840.113549.1.5.127"), null()})),
            sealed(pbkdf2("0800", "1.2.840.113549.2.127")),
            sealed(pbkdf2("0800"), "2.16.840.1.101.3.4.1.127"),
            sealed(pbkdf2("0800"), "2.16.840.1.101.3.4.1.46"), // AES-256 in GCM mode
            sealed(scryptOf64MiB)};
}

} // namespace norvtest
