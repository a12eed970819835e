// Mails that are signed and encrypted on their way: who sent them chose what stands in their headers.
#include "HostileMails.h"

#include "EnvelopeKey.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <string>

namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;

namespace fuzz {

namespace {

const std::string character = "\xc3\xa4"; // of two octets
const std::string from = "From: a@a.example\r\n";

Prepared written(const std::string& text) {
    return prepared(text.size(), [text] {
        const NVX509::KeyCertificatePair pair = everybody()->findSigningKey(Norvane::EmailAddress());
        SMime::SignOptions signing;
        signing.signers.emplace_back(pair);
        SMime::EncryptOptions encrypting;
        encrypting.keys = everybody();
        encrypting.addressesOfMessage = true;
        encrypting.certificates.push_back(pair->certificate);
        SMime::WriteOptions options;
        options.protectHeader = true;
        options.legacyDisplay = true;
        Norvane::NullMediaOut out;
        SMime::wrap(Norvane::MemoryMediaIn(text), {signing, encrypting}, out, options);
    });
}

Prepared fields(std::size_t count) {
    return written(from + repeatedText("X: " + character + "\r\n", count) + "\r\nbody");
}
Prepared longField(std::size_t octets) {
    return written(from + "Subject: " + repeatedText(character, octets / 2) + "\r\n\r\nbody");
}
Prepared words(std::size_t count) {
    return written(from + "Subject: " + repeatedText(character + "\r\n ", count) + "x\r\n\r\nbody");
}
Prepared parameters(std::size_t count) {
    return written(from + "Content-Disposition: inline" + repeatedText(";\r\n a=\"" + character + '"', count) +
                   "\r\n\r\nbody");
}
/// With the longest name that is given to GMime, which repeats it in each segment of the value.
Prepared longParameter(std::size_t octets) {
    return written(from + "Content-Disposition: inline; " + std::string(40, 'x') + "=\"" +
                   repeatedText(character, octets / 2) + "\"\r\n\r\nbody");
}
/// GMime never ends with it.
Prepared longName(std::size_t octets) {
    return written(from + "Content-Disposition: inline; " + std::string(71, 'x') + "=\"" +
                   repeatedText(character, octets / 2) + "\"\r\n\r\nbody");
}
Prepared addresses(std::size_t count) {
    return written(from + "To: b@b.example" + repeatedText(",\r\n \"" + character + "\" <b@b.example>", count) +
                   "\r\n\r\nbody");
}
Prepared noAddresses(const std::string& field, std::size_t count) {
    return written(from + field + ": b@b.example" + repeatedText(",a", count) + "," + character + "\r\n\r\nbody");
}
Prepared noRecipients(std::size_t count) {
    return noAddresses("To", count);
}
Prepared noRepliers(std::size_t count) {
    return noAddresses("Reply-To", count);
}
Prepared domains(std::size_t count) {
    return written(from + "To: b@b.example" + repeatedText(",\r\n b@" + character + ".example", count) +
                   "\r\n\r\nbody");
}
Prepared groups(std::size_t count) {
    return written(from + "To: " + repeatedText("a:", count) + character + "\r\n\r\nbody");
}
Prepared parts(std::size_t count) {
    const std::string part = "--x\r\nContent-Description: " + character + "\r\n\r\n" + character + "\r\n";
    return written(from + "Content-Type: multipart/mixed; boundary=x\r\n\r\n" + repeatedText(part, count) +
                   "--x--\r\n");
}
Prepared forwarded(std::size_t count) {
    return written(from + repeatedText("Content-Type: message/rfc822\r\n\r\nX: " + character + "\r\n", count) +
                   "\r\nbody");
}

} // namespace

std::vector<Case> hostileWriting() {
    return {
        {"mail to encrypt, header fields", "fields", 400, 1.2, fields},
        {"the same, beyond the limit", "fields", 4000, 1.2, fields},
        {"mail to encrypt, a long field", "octets", 50000, 1.2, longField},
        {"the same, beyond the limit", "octets", 400000, 1.2, longField},
        {"mail to encrypt, words of a field", "words", 5000, 1.2, words},
        {"mail to encrypt, parameters of a field", "parameters", 2000, 1.2, parameters},
        {"mail to encrypt, a long parameter", "octets", 50000, 1.2, longParameter},
        {"the same, with a name of 71 octets", "octets", 50000, 1.2, longName},
        {"mail to encrypt, addresses", "addresses", 1000, 1.2, addresses},
        {"the same, beyond the limit", "addresses", 10000, 1.2, addresses},
        {"mail to encrypt, words of To that are no addresses", "words", 10000, 1.2, noRecipients},
        {"mail to encrypt, words of Reply-To that are no addresses", "words", 10000, 1.2, noRepliers},
        {"mail to encrypt, domains of another script", "domains", 1000, 1.2, domains},
        {"mail to encrypt, groups of addresses in one another", "groups", 20, 1.2, groups},
        {"the same, beyond the limit", "groups", 2000, 1.2, groups},
        {"mail to encrypt, parts", "parts", 2000, 1.2, parts},
        {"the same, beyond the limit", "parts", 20000, 1.2, parts},
        {"mail to encrypt, messages in one another", "levels", 4, 1.2, forwarded},
        {"the same, beyond the limit", "levels", 200, 1.2, forwarded},
    };
}

} // namespace fuzz
