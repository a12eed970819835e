#include "Operations.h"

#include <norvcmsg/SwapBufferMediaOut.h>

namespace faultsofmessages {

namespace {

/// Whether that came out under another key. Where a content key is not opened, a random one is taken, so that all failures are
/// alike: of 256 of these, one comes to a good padding.
bool isGarbage(const std::string& content) {
    const std::string right = textOf(body());
    std::size_t same = 0;
    for (std::size_t i = 0; i != std::min(content.size(), right.size()); ++i) {
        same += content[i] == right[i] ? 1 : 0;
    }
    return content.size() <= right.size() + 16 && same * 16 < right.size();
}

} // namespace

Operation decryptsAsPrescribed(const std::string& name, const Bytes& structure, const NVX509::RefKeyStore& keys,
                               bool bad) {
    return {
        .name = "DecrypterMediaIn " + name,
        .act =
            [=] {
                Norvane::MediaIn message = faults::source(textOf(structure));
                Norvane::SwapBufferMediaOut clear(500, "/tmp/faultsXXXXXX");
                CMS::DecrypterMediaIn decrypter(message, keys);
                const bool good = decrypter.decrypt(clear);
                std::string content;
                clear.in().read(content);
                const faults::Pause pause;
                if (good != decrypter.decryptionSucceeded()) {
                    return Answer{Answer::wrong, "two answers"};
                }
                if (!good) {
                    return content.empty() ? Answer{Answer::refused, "not decrypted"}
                                           : Answer{Answer::wrong, "something is left of what failed"};
                }
                if (content == textOf(body())) {
                    return Answer{Answer::done};
                }
                return isGarbage(content) ? Answer{Answer::refused, "garbage"} : Answer{Answer::wrong, "another body"};
            },
        .mustRefuse = bad,
        .mayRefuse = true};
}

Operation readsEnvelope(const std::string& name, const Bytes& structure,
                        const std::function<bool(EnvelopeReader&)>& open, bool bad) {
    return {.name = "EnvelopeReader " + name,
            .act =
                [=] {
                    Target target;
                    EnvelopeReader reader(faults::source(textOf(structure)));
                    reader.spillTo("/tmp/faultsXXXXXX");
                    if (!open(reader)) {
                        return Answer{reader.unsupported().empty() ? Answer::refused : Answer::undecided,
                                      "not opened " + reader.unsupported()};
                    }
                    reader.write(target);
                    const faults::Pause pause;
                    if (reader.verdict() != EnvelopeReader::Complete || !reader.atEnd()) {
                        return Answer{Answer::refused, "verdict " + std::to_string(reader.verdict())};
                    }
                    if (target.content() != textOf(body())) {
                        return bad || isGarbage(target.content()) ? Answer{Answer::done, "another body"}
                                                                  : Answer{Answer::wrong, "another body"};
                    }
                    return Answer{Answer::done};
                },
            .mustRefuse = bad};
}

} // namespace faultsofmessages
