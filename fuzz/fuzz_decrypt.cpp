// Enveloped structures: decoded from a stream, without what the decoder does not know, and decrypted with one key for whoever is named, so that mutations reach
// the cipher. The corpus is encrypted for that key. Each is decrypted in both ways.
#include "Driver.h"
#include "EnvelopeKey.h"

#include <norvcmsg/Escape.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeOutline.h>

using namespace Norvane;
using namespace Norvane::Crypto;
using CMS::DecrypterMediaIn;

namespace {

void checkAnswers(const DecrypterMediaIn& decrypter, bool succeeded) {
    using Attempt = DecrypterMediaIn::Attempt;
    fuzz::require(decrypter.decryptionSucceeded() == succeeded);
    fuzz::require(decrypter.succeeded().size() == (succeeded ? 1U : 0U));
    std::size_t good = 0;
    std::size_t unnamed = 0;
    for (const Attempt& attempt : decrypter.attempts()) {
        good += attempt.outcome() == Attempt::Succeeded ? 1 : 0;
        unnamed += attempt.outcome() == Attempt::NegativeSerialNumber ? 1 : 0;
        fuzz::require(attempt.algorithm().empty() == (attempt.outcome() != Attempt::UnsupportedAlgorithm));
        fuzz::require(isDisplayable(attempt.algorithm()));
    }
    fuzz::require(good == decrypter.succeeded().size());
    fuzz::require(decrypter.attempts().size() == good + unnamed + decrypter.failed().size());
    fuzz::require(!succeeded || decrypter.attempts().back().outcome() == Attempt::Succeeded);
    for (const auto& failed : decrypter.failed()) {
        static_cast<void>(failed.issuer()->asString());
        static_cast<void>(failed.serialNumber()->hex());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::start();
    static const NVX509::RefKeyStore keys = fuzz::envelopeStore();
    const auto decryptInBothWays = [](const Buffer& input) {
        const CMS::EnvelopeOutline outline(input);
        const Buffer message = outline.isReadable() ? outline.readable(input) : input;
        MemoryMediaIn source(message);
        DecrypterMediaIn streaming(source, keys);
        NullMediaOut unseen;
        streaming.write(unseen);
        checkAnswers(streaming, streaming.decryptionSucceeded());

        MemoryMediaIn again(message);
        DecrypterMediaIn decrypter(again, keys);
        SwapBufferMediaOut out(1U << 20U, "/tmp/fuzzXXXXXX");
        const bool succeeded = decrypter.decrypt(out);
        checkAnswers(decrypter, succeeded);
        fuzz::require(out.length() == (succeeded ? decrypter.attempts().back().bytesWritten() : 0U));
    };
    // The key is that of every recipient: an RSA operation for each.
    return fuzz::run(data, size, decryptInBothWays, {.constant = 50'000'000, .perOctet = 100'000});
}
