#pragma once

/// \file
/// Trusted certificates and revocation lists as OpenSSL finds them: in a bundle, or one by one in a directory where each
/// is filed under the hash of its name (HASH.0, HASH.1, ... for certificates, HASH.r0, ... for lists).

#include "OpenSsl.h"

#include <string>
#include <vector>

namespace norvcrypt {

/// What is wrong, one line each, as it was found.
class Problems {
public:
    void add(const std::string& path, const std::string& problem) { m_lines.push_back(path + ": " + problem); }
    [[nodiscard]] const std::vector<std::string>& lines() const { return m_lines; }

private:
    std::vector<std::string> m_lines;
};

/// False, and reported, when there is nothing under that path that this process can read.
bool checkThere(const std::string& path, Problems& problems);

/// Reports a certificate that is not valid now.
void checkPeriod(const std::string& path, X509* certificate, Problems& problems);

/// The trusted certificates of a bundle; reports what is none, not valid now or no authority.
std::vector<CertificatePtr> checkTrustedFile(const std::string& path, Problems& problems);

/// The same for a directory, where certificates must be filed as well; adds them to `trusted`.
void checkTrustedDirectory(const std::string& path, Problems& problems, std::vector<CertificatePtr>& trusted);

/// The same for lists, which must not be stale; those of `trusted` certificates must be signed by them.
void checkListDirectory(const std::string& path, Problems& problems, const std::vector<CertificatePtr>& trusted);

} // namespace norvcrypt
