#include "show/DecryptionReport.h"
#include "openssl/CertificateDetails.h"
#include "show/CmsDescription.h"

#include <algorithm>

namespace norvcrypt {

namespace {

using Recipient = Norvane::Crypto::CMS::EnvelopeReader::Recipient;

std::string noKeyText(Recipient::Kind kind) {
    switch (kind) {
    case Recipient::password:
        return "no password was given (--password-file)";
    case Recipient::keyEncryptionKey:
        return "no key-encryption key was given (--kek-file)";
    default:
        return "no key for it (event 0x300005A)";
    }
}

/// Of one whose secret both sides have.
std::string textOfSecret(const Attempt& attempt) {
    const bool isPassword = attempt.kind == Recipient::password;
    const std::string secret = (isPassword ? "password in " : "key-encryption key in ") + attempt.secretFile;
    if (attempt.outcome == Attempt::Outcome::decrypted)
        return "decrypted with the " + secret;
    return "decryption with the " + secret + " failed, it is another one or the message is damaged";
}

std::string textOf(const Attempt& attempt) {
    using enum Attempt::Outcome;
    const std::string keyFile = attempt.identity ? attempt.identity->keyFile : "";
    switch (attempt.outcome) {
    case unnamed:
        return "its serial number is negative, no key can be asked for (event 0x300005B)";
    case noKey:
        return noKeyText(attempt.kind);
    case foreignKey:
        return "the private key in " + keyFile + " does not belong to its certificate (event 0x300005B)";
    case unfitKey:
        return "the private key in " + keyFile +
               (attempt.kind == Recipient::keyTransport ? " is no RSA key (event 0x300005B)"
                                                        : " is none that agrees on keys in this way (event 0x300005B)");
    case unsupported:
        return attempt.algorithm + " is not supported (event 0x300005B)";
    case tooCostly:
        return "not tried, " + attempt.algorithm;
    case notTried:
        return "not tried, the message has more recipients than a message may cost (event 0x300005F)";
    case decrypted:
    case failed:
        break;
    }
    if (!attempt.identity)
        return textOfSecret(attempt);
    if (attempt.outcome == decrypted)
        return "decrypted with the key in " + keyFile + ", certificate SHA-256 " +
               fingerprint(attempt.identity->certificate);
    return "decryption with the key in " + keyFile + " failed, the message is damaged (event 0x300005B)";
}

const char* codeOf(Attempt::Outcome outcome) {
    switch (outcome) {
    case Attempt::Outcome::decrypted:
        return "decrypted";
    case Attempt::Outcome::unnamed:
        return "negative-serial";
    case Attempt::Outcome::noKey:
        return "no-key";
    case Attempt::Outcome::foreignKey:
        return "key-of-another-certificate";
    case Attempt::Outcome::unfitKey:
        return "key-unfit";
    case Attempt::Outcome::unsupported:
        return "unsupported";
    case Attempt::Outcome::tooCostly:
        return "too-costly";
    case Attempt::Outcome::notTried:
        return "not-tried";
    case Attempt::Outcome::failed:
        break;
    }
    return "failed";
}

} // namespace

Description decryptionFacts(const DecryptionResult& result) {
    Description facts{{"decrypted", result.decrypted}, {"contentMissing", result.contentMissing}};
    facts["recipients"] = Description::array();
    for (const Attempt& attempt : result.attempts) {
        Description one{{"kind", nameOfKind(attempt.kind)}, {"outcome", codeOf(attempt.outcome)}};
        if (!attempt.recipient.empty())
            one["identifier"] = attempt.recipient;
        one["text"] = textOf(attempt);
        if (attempt.identity) {
            one["keyFile"] = attempt.identity->keyFile;
            one["certificateSha256"] = fingerprint(attempt.identity->certificate);
        }
        facts["recipients"].push_back(std::move(one));
    }
    return facts;
}

std::vector<std::string> decryptionReport(const DecryptionResult& result) {
    if (result.contentMissing)
        return {"the encrypted body is not in the structure (event 0x3000059)"};
    if (result.attempts.empty())
        return {"the structure names no recipient"};
    std::vector<std::string> lines;
    const auto begin = result.attempts.begin();
    for (auto attempt = begin; attempt != result.attempts.end(); ++attempt) {
        const std::string number = std::to_string(attempt - begin + 1);
        // Those that were not tried are as many as the sender likes.
        const auto next = std::find_if(attempt, result.attempts.end(),
                                       [](const Attempt& one) { return one.outcome != Attempt::Outcome::notTried; });
        if (next - attempt > 1) {
            lines.push_back("recipients " + number + " to " + std::to_string(next - begin) + ": " + textOf(*attempt));
            attempt = next - 1;
        } else {
            lines.push_back("recipient " + number + ", " + attempt->recipient +
                            (attempt->recipient.empty() ? "" : ": ") + textOf(*attempt));
        }
    }
    return lines;
}

} // namespace norvcrypt
