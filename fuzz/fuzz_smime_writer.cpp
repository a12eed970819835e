// A byte that chooses what is done, then a mail: signed, encrypted or both. What comes out is 7-bit with short lines behind
// its header, and is read back: good, and with the content that went in.
#include "Driver.h"
#include "EnvelopeKey.h"

#include "mime/Header.h"
#include "mime/Transfer.h"
#include "mime/Values.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <algorithm>
#include <vector>

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
namespace SMime = Norvane::Crypto::SMime;
namespace mime = SMime::mime;

namespace {

/// What the first byte chooses.
struct Choice {
    explicit Choice(unsigned int bits)
        : signs((bits & 3U) != 1),
          encrypts((bits & 3U) != 0 && (bits & 3U) != 3),
          opaque((bits & 4U) != 0),
          byAddress((bits & 8U) != 0),
          feeds((bits & 16U) != 0),
          protects((bits & 32U) != 0) {}
    bool signs, encrypts, opaque, byAddress, feeds, protects;
};

std::vector<SMime::Wrapping> shellsOf(const Choice& choice) {
    static const NVX509::KeyCertificatePair pair = fuzz::everybody()->findSigningKey(Norvane::EmailAddress());
    SMime::SignOptions signing;
    signing.form = choice.opaque ? SMime::SigningForm::opaque : SMime::SigningForm::multipartSigned;
    SMime::EncryptOptions encrypting;
    if (choice.byAddress) {
        signing.keys = fuzz::everybody();
        encrypting.keys = fuzz::everybody();
        encrypting.addressesOfMessage = true;
    } else {
        signing.signers.emplace_back(pair);
        encrypting.certificates.push_back(pair->certificate);
    }
    std::vector<SMime::Wrapping> shells;
    if (choice.signs) {
        shells.emplace_back(signing);
    }
    if (choice.encrypts) {
        shells.emplace_back(encrypting);
    }
    return shells;
}

/// With CRLF for each bare LF, as it is signed: parts say how long they are in these.
std::string canonical(const std::string& mail) {
    Norvane::MemoryMediaOut out;
    mime::CanonicalMediaOut lines(out);
    mime::put(lines, mail);
    lines.end();
    return fuzz::text(out.content());
}

struct Outcome {
    SMime::Answer answer;
    std::string content;
};

Outcome outcomeOf(const std::string& mail) {
    static const CMS::KeyStoreLookup keys(fuzz::everybody());
    SMime::ReadOptions options;
    options.keys = &keys;
    options.listParts = true;
    // More than the writer lets through, whose own fields and parts come on top.
    options.budget.headerFields = 10000;
    options.budget.headerOctets = 1U << 20U;
    options.budget.parts = 20000;
    options.budget.depth = 60;
    Norvane::MemoryMediaOut content;
    Outcome outcome;
    outcome.answer = SMime::read(Norvane::MemoryMediaIn(mail), content, options);
    outcome.content = fuzz::text(content.content());
    return outcome;
}

/// Whether both have the same parts that hold no others, in type and length. A type that is not 7-bit is none, and becomes
/// another that is none.
bool haveSameLeaves(const SMime::Answer& before, const SMime::Answer& after) {
    return std::equal(before.parts.begin(), before.parts.end(), after.parts.begin(), after.parts.end(),
                      [](const SMime::LeafPart& one, const SMime::LeafPart& other) {
                          const bool isType = std::all_of(one.type.begin(), one.type.end(),
                                                          [](char byte) { return byte > ' ' && byte <= '~'; });
                          return one.octets == other.octets && (one.type == other.type || !isType);
                      });
}

/// Whether the mail is nothing but another one: inside of a layer it is taken for one whose fields are to be protected.
bool isForwarded(const std::string& mail) {
    mime::MemoryOctets octets(mail);
    mime::Header header;
    static_cast<void>(mime::readHeader(octets, {1U << 20U, 10000}, header));
    return mime::contentTypeOf(header).type == "message";
}

/// The body of a mail that is no multipart, without its encoding; nothing for others.
std::string bodyOf(const std::string& mail) {
    const auto octets = std::make_shared<mime::MemoryOctets>(mail);
    mime::Header header;
    static_cast<void>(mime::readHeader(*octets, {1U << 20U, 10000}, header));
    const mime::ContentType type = mime::contentTypeOf(header);
    if (type.type == "multipart" || type.type == "message") {
        return {};
    }
    Norvane::MemoryMediaOut out;
    static_cast<void>(mime::copy(*mime::decoded(octets, mime::transferOf(header)), out));
    return fuzz::text(out.content());
}

/// Behind the header, which stays as it came: 7-bit, lines that relays do not break, each with the end that was asked for.
void requireSendable(const std::string& written, bool feeds) {
    const std::string end = feeds ? "\n" : "\r\n";
    std::size_t from = written.find(end + end);
    fuzz::require(from != std::string::npos);
    for (from += 2 * end.size(); from < written.size();) {
        const std::size_t at = written.find(end, from);
        fuzz::require(at != std::string::npos && at - from <= 998);
        fuzz::require(std::all_of(written.begin() + static_cast<std::ptrdiff_t>(from),
                                  written.begin() + static_cast<std::ptrdiff_t>(at),
                                  [](char byte) { return byte > 0 && byte != '\r' && byte != '\n'; }));
        from = at + end.size();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const Choice choice(data[0]);
    const auto write = [&choice](const Norvane::Buffer& input) {
        const std::string mail = canonical(fuzz::text(input));
        SMime::WriteOptions how;
        how.lineEnds = choice.feeds ? SMime::LineEnds::lf : SMime::LineEnds::crlf;
        how.protectHeader = choice.protects;
        Norvane::MemoryMediaOut out;
        SMime::wrap(Norvane::MemoryMediaIn(mail), shellsOf(choice), out, how);
        const std::string written = fuzz::text(out.content());
        requireSendable(written, choice.feeds);
        const Outcome before = outcomeOf(mail);
        // What was signed or encrypted before, or says that it was, has a say in the verdict; so may what others read in another
        // way already (a NUL byte in a Content-Type), which is read in another way afterwards.
        // Of a message in a message likewise: inside of a layer it is taken for what the layer is about.
        if (before.answer.verdict != SMime::Verdict::notSMime || !before.answer.oddities.empty() ||
            std::any_of(before.answer.layers.begin(), before.answer.layers.end(),
                        [](const SMime::Layer& layer) { return layer.kind != SMime::LayerKind::forwarded; })) {
            return;
        }
        const Outcome read = outcomeOf(written);
        fuzz::require(read.answer.verdict ==
                      (choice.signs ? SMime::Verdict::signatureGood : SMime::Verdict::decrypted));
        fuzz::require(read.answer.notCovered.empty());
        const std::string content = canonical(read.content); // it has the line ends that were asked for
        if (!isForwarded(mail)) {
            fuzz::require(haveSameLeaves(before.answer, outcomeOf(content).answer));
            fuzz::require(bodyOf(content) == bodyOf(mail));
        }
    };
    return fuzz::run(data + 1, size - 1, write, {.constant = UINT64_C(20'000'000'000), .perOctet = 2'000'000});
}
