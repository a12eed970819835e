#pragma once

#include <norvcrypto/Certificate.h>

#include <string>

namespace norvcrypt {

/// Warns of a certificate that is out of its validity, and of a key too short to be safe. Whoever names a certificate may know
/// why it serves all the same; who took the wrong file does not. \param path of the file that it is in
void warnOfDoubts(const Norvane::Crypto::NVX509::RefCertificate& certificate, const std::string& path);

} // namespace norvcrypt
