#include "show/DecryptionReport.h"
#include "openssl/CertificateDetails.h"

namespace norvcrypt {

namespace {

std::string textOf(const Attempt& attempt) {
    using enum Attempt::Outcome;
    const std::string keyFile = attempt.identity ? attempt.identity->keyFile : "";
    switch (attempt.outcome) {
    case decrypted:
        return "decrypted with the key in " + keyFile + ", certificate SHA-256 " +
               fingerprint(attempt.identity->certificate);
    case unnamed:
        return "its serial number is negative, no key can be asked for (event 0x300005B)";
    case noKey:
        return "no key for it (event 0x300005A)";
    case foreignKey:
        return "the private key in " + keyFile + " does not belong to its certificate (event 0x300005B)";
    case noRsaKey:
        return "the private key in " + keyFile + " is no RSA key (event 0x300005B)";
    case failed:
        break;
    }
    return "decryption with the key in " + keyFile +
           " failed, the message is damaged or its cipher unknown (event 0x300005B)";
}

} // namespace

std::vector<std::string> decryptionReport(const DecryptionResult& result) {
    if (result.contentMissing)
        return {"the encrypted body is not in the structure (event 0x3000059)"};
    if (result.attempts.empty())
        return {"the structure names no recipient"};
    std::vector<std::string> lines;
    for (const Attempt& attempt : result.attempts)
        lines.push_back("recipient " + std::to_string(lines.size() + 1) + ", " + attempt.recipient +
                        (attempt.recipient.empty() ? "" : ": ") + textOf(attempt));
    return lines;
}

} // namespace norvcrypt
