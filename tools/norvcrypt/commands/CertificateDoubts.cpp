#include "commands/CertificateDoubts.h"
#include "base/Failure.h"
#include "files/Input.h"
#include "identities/StoreCheck.h"
#include "openssl/CertificateDetails.h"

#include <ctime>

namespace norvcrypt {

void warnOfDoubts(const Norvane::Crypto::NVX509::RefCertificate& certificate, const std::string& path) {
    const auto warn = [&path](const std::string& what) {
        reportError("warning: the certificate in " + inputName(path) + " " + what);
    };
    const Period period = periodAt(certificate, std::time(nullptr));
    if (period == Period::notYetValid)
        warn("is not valid yet");
    else if (period == Period::expired)
        warn("has expired");
    if (const auto key = publicKeyDetails(certificate); key && leastSafeBits(*key))
        warn("has a key too short to be safe: " + key->name + " with " + std::to_string(key->bits) + " bits");
}

} // namespace norvcrypt
