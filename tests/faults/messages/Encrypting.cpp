#include "Operations.h"

namespace faultsofmessages {

using CMS::EnvelopeOptions;

namespace {

Answer openedAgain(const Target& target, const Addressee& by) {
    const faults::Pause pause;
    if (!target.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    const auto clear = opened(bytesOf(target.content()), by);
    ERR_clear_error();
    return clear == body() ? Answer{Answer::done} : Answer{Answer::wrong, "OpenSSL does not open it"};
}

} // namespace

Operation encryptsAsPrescribed() {
    const auto recipients = certificatesOf({&alice(), &bob()});
    return {.name = "EncrypterMediaOut",
            .act =
                [recipients] {
                    Target target;
                    CMS::EncrypterMediaOut encrypter(Crypto::AES_256_CBC, recipients);
                    encrypter.attach(target);
                    writeInPieces(encrypter, body(), 1000);
                    encrypter.end();
                    return openedAgain(target, {"alice", EnvelopeRecipient(recipients.front()), &alice()});
                },
            .leavesQueue = true};
}

Operation encrypts(const std::string& name, const Addressee& to, ContentCipher cipher, EnvelopeEncoding encoding) {
    EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = encoding;
    options.temporaryFile = "/tmp/faultsXXXXXX";
    return {.name = "EnvelopeWriter " + name, .act = [to, options] {
                Target target;
                CMS::EnvelopeWriter writer({to.recipient}, options);
                writer.attach(target);
                writeInPieces(writer, body(), 1000);
                writer.end();
                return openedAgain(target, to);
            }};
}

} // namespace faultsofmessages
