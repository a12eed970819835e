#include "OpenSsl.h"

namespace Norvane::Crypto::Trust::detail {

namespace {

template <class Digest> Fingerprint fingerprint(Digest digest) {
    Fingerprint bytes{};
    unsigned int length = 0;
    if (digest(bytes.data(), &length) != 1) {
        throw std::bad_alloc();
    }
    return bytes;
}

bool tellsOfMemory(unsigned long code) noexcept {
    return ERR_GET_REASON(code) == ERR_R_MALLOC_FAILURE;
}

} // namespace

bool QuietQuestion::ranOutOfMemory() const noexcept {
    if (!m_onlyOurs) {
        return tellsOfMemory(ERR_peek_last_error());
    }
    bool told = false;
    while (const unsigned long code = ERR_get_error()) {
        told = told || tellsOfMemory(code);
    }
    return told;
}

Fingerprint fingerprintOf(const X509* certificate) {
    return fingerprint(
        [&](unsigned char* out, unsigned int* length) { return X509_digest(certificate, EVP_sha256(), out, length); });
}

Fingerprint fingerprintOf(const X509_CRL* list) {
    return fingerprint(
        [&](unsigned char* out, unsigned int* length) { return X509_CRL_digest(list, EVP_sha256(), out, length); });
}

Fingerprint fingerprintOf(const std::string& bytes) {
    return fingerprint([&](unsigned char* out, unsigned int* length) {
        return EVP_Digest(bytes.data(), bytes.size(), out, length, EVP_sha256(), nullptr);
    });
}

Owned<CRL_DIST_POINTS> distributionPointsOf(const X509* certificate) {
    const QuietQuestion quiet;
    Owned<CRL_DIST_POINTS> points(
        static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(certificate, NID_crl_distribution_points, nullptr, nullptr)));
    if (!points) {
        quiet.throwWithoutMemory(); // a list would not be found that revokes
    }
    return points;
}

std::optional<std::time_t> secondsOf(const ASN1_TIME* time) {
    const QuietQuestion quiet;
    std::tm fields{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &fields) != 1) {
        return std::nullopt;
    }
    return timegm(&fields);
}

std::string dateOf(std::time_t seconds) {
    std::tm fields{};
    std::array<char, 64> text{};
    if (gmtime_r(&seconds, &fields) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &fields) == 0) {
        return "an unreadable time";
    }
    return text.data();
}

std::string textOf(const ASN1_OBJECT* object) {
    const QuietQuestion quiet;
    std::array<char, 256> text{};
    if (object == nullptr || OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object, 0) <= 0) {
        return "unknown";
    }
    return text.data();
}

} // namespace Norvane::Crypto::Trust::detail
