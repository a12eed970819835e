#pragma once

/// \file
/// Trusted certificates and revocation lists as OpenSSL finds them: in a bundle, or one by one in a directory where each
/// is filed under the hash of its name (HASH.0, HASH.1, ... for certificates, HASH.r0, ... for lists).

#include "openssl/OpenSsl.h"

#include <ctime>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace norvcrypt {

/// What is wrong, one line each, as it was found.
class Problems {
public:
    /// \param days certificates must be valid for so long still
    explicit Problems(unsigned int days) : m_horizon(std::time(nullptr) + std::time_t{days} * 86400) {}
    [[nodiscard]] std::time_t horizon() const { return m_horizon; }
    struct Problem {
        std::string file;
        std::string reason;
    };
    void add(const std::string& path, const std::string& problem) { m_all.push_back({path, problem}); }
    [[nodiscard]] const std::vector<Problem>& all() const { return m_all; }

private:
    std::time_t m_horizon;
    std::vector<Problem> m_all;
};

/// False, and reported, when there is no file under that path that this process can read. Reports as well that others
/// than its owner may do to it what is in `forbidden`.
bool checkFile(const std::string& path, mode_t forbidden, Problems& problems);
bool checkDirectory(const std::string& path, Problems& problems);

/// The permission to write for others than the owner.
constexpr mode_t writeForOthers = S_IWGRP | S_IWOTH;

/// Reports a certificate that is not valid now, or not long enough.
void checkPeriod(const std::string& path, X509* certificate, Problems& problems);

/// The trusted certificates of a bundle; reports what is none, not valid now or no authority.
std::vector<CertificatePtr> checkTrustedFile(const std::string& path, Problems& problems);

/// The same for a directory, where certificates must be filed as well; adds them to `trusted`.
void checkTrustedDirectory(const std::string& path, Problems& problems, std::vector<CertificatePtr>& trusted);

/// The same for lists, which must not be stale; those of `trusted` certificates must be signed by them.
void checkListDirectory(const std::string& path, Problems& problems, const std::vector<CertificatePtr>& trusted);

} // namespace norvcrypt
