// The cipher that all recipients read.
#include <norvcrypto/CMSEnvelopeWriter.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Norvane::Crypto::CMS {

namespace {

struct KnownCipher {
    ContentCipher cipher;
    std::string_view identifier;
};

/// The strongest first.
constexpr std::array<KnownCipher, 7> s_ours{{
    {ContentCipher::aes256Gcm, "2.16.840.1.101.3.4.1.46"},
    {ContentCipher::aes192Gcm, "2.16.840.1.101.3.4.1.26"},
    {ContentCipher::aes128Gcm, "2.16.840.1.101.3.4.1.6"},
    {ContentCipher::aes256Cbc, "2.16.840.1.101.3.4.1.42"},
    {ContentCipher::aes192Cbc, "2.16.840.1.101.3.4.1.22"},
    {ContentCipher::aes128Cbc, "2.16.840.1.101.3.4.1.2"},
    {ContentCipher::tripleDesCbc, "1.2.840.113549.3.7"},
}};

/// Whoever names one of these and none of ours tells that we have nothing for him.
constexpr std::array<std::string_view, 15> s_others{
    "1.2.840.113549.3.2",         // RC2-CBC
    "1.3.14.3.2.7",               // DES-CBC
    "1.2.840.113533.7.66.10",     // CAST5-CBC
    "1.3.6.1.4.1.188.7.1.1.2",    // IDEA-CBC
    "2.16.840.1.101.3.4.1.7",     // AES-128-CCM
    "2.16.840.1.101.3.4.1.27",    // AES-192-CCM
    "2.16.840.1.101.3.4.1.47",    // AES-256-CCM
    "1.2.840.113549.1.9.16.3.18", // ChaCha20-Poly1305
    "1.2.392.200011.61.1.1.1.2",  // Camellia-128-CBC
    "1.2.392.200011.61.1.1.1.3",  // Camellia-192-CBC
    "1.2.392.200011.61.1.1.1.4",  // Camellia-256-CBC
    "1.2.410.200004.1.4",         // SEED-CBC
    "1.2.410.200046.1.1.2",       // ARIA-128-CBC
    "1.2.643.2.2.21",             // GOST 28147-89
    "1.2.156.10197.1.104.2",      // SM4-CBC
};

bool names(const std::vector<std::string>& capabilities, std::string_view identifier) {
    return std::find(capabilities.begin(), capabilities.end(), identifier) != capabilities.end();
}

bool namesAnyCipher(const std::vector<std::string>& capabilities) {
    return std::any_of(capabilities.begin(), capabilities.end(), [](const std::string& one) {
        return std::any_of(s_ours.begin(), s_ours.end(),
                           [&](const KnownCipher& our) { return our.identifier == one; }) ||
               std::find(s_others.begin(), s_others.end(), one) != s_others.end();
    });
}

bool reads(const std::vector<std::string>& capabilities, const KnownCipher& candidate, ContentCipher whenUnknown) {
    return namesAnyCipher(capabilities)
               ? names(capabilities, candidate.identifier)
               : candidate.cipher == whenUnknown || candidate.cipher == ContentCipher::aes128Cbc;
}

} // namespace

std::optional<ContentCipher> strongestCommonCipher(const std::vector<std::vector<std::string>>& capabilities,
                                                   ContentCipher whenUnknown, bool tripleDes) {
    if (capabilities.empty()) {
        return whenUnknown;
    }
    for (const KnownCipher& candidate : s_ours) {
        if (candidate.cipher == ContentCipher::tripleDesCbc && !tripleDes) {
            continue;
        }
        if (std::all_of(capabilities.begin(), capabilities.end(),
                        [&](const auto& of) { return reads(of, candidate, whenUnknown); })) {
            return candidate.cipher;
        }
    }
    return std::nullopt;
}

} // namespace Norvane::Crypto::CMS
