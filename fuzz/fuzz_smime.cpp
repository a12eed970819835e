// A whole message, with a key for every recipient: read at once and in small pieces, which must come to the same, and looked
// at once more within a multipart, where nothing of what stands around it may get into the content; and with all that a caller may
// ask for.
#include "Driver.h"
#include "EnvelopeKey.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustMaterial.h>
#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <vector>

namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace {

/// Gives seven bytes at a time.
class Dripping : public Norvane::MediaInImpl {
public:
    explicit Dripping(const Norvane::Buffer& octets) : m_in(octets) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_in.atEnd(); }
    [[nodiscard]] int peek() const override { return m_in.peek(); }
    int read(unsigned char* out, unsigned int length) override { return m_in.read(out, std::min(length, 7U)); }

private:
    Norvane::MemoryMediaIn m_in;
};

struct Outcome {
    SMime::Answer answer;
    std::string content;
};

Outcome outcomeOf(const Norvane::MediaIn& in, bool isWhole) {
    static const CMS::KeyStoreLookup keys(fuzz::envelopeStore());
    SMime::ReadOptions options;
    options.keys = &keys;
    options.wholeMessage = isWhole;
    options.listParts = true;
    options.budget.spill = 1U << 20U;
    Norvane::MemoryMediaOut content;
    Outcome outcome;
    outcome.answer = SMime::read(in, content, options);
    outcome.content = fuzz::text(content.content());
    return outcome;
}

Norvane::Buffer octets(const std::string& text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()), false};
}

/// With everything that a caller may ask for.
void readWithAll(const Norvane::Buffer& message) {
    static const auto store = fuzz::envelopeStore();
    static const CMS::KeyStoreLookup keys(store);
    static const Norvane::Buffer password = octets("password");
    static const Norvane::Buffer keyEncryptionKey = octets("a key of 16 byte");
    static const auto certificate = store->findSigningKey(Norvane::EmailAddress())->certificate;
    static const auto material = [] {
        auto made = std::make_shared<Trust::Material>();
        made->addAnchor(certificate);
        return made;
    }();
    const Trust::Verifier trust(material);
    SMime::ReadOptions options;
    options.keys = &keys;
    options.password = &password;
    options.keyEncryptionKey = &keyEncryptionKey;
    options.certificates = {certificate};
    options.trust = &trust;
    options.keepSignatures = true;
    options.explain = true;
    options.wholeMessage = true;
    options.budget.spill = 1U << 20U;
    Norvane::MemoryMediaOut content;
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(message), content, options);
    fuzz::require(answer.verdict != SMime::Verdict::notSMime || content.content().length() == 0);
}

/// A damaged message that is encrypted may come to something else each time: a random key stands in for a wrong one.
bool isCertain(const SMime::Answer& answer) {
    return std::none_of(answer.layers.begin(), answer.layers.end(), [](const SMime::Layer& layer) {
        return layer.kind == SMime::LayerKind::enveloped || layer.kind == SMime::LayerKind::authEnveloped;
    });
}

std::vector<std::uint64_t> lengthsOf(const SMime::Answer& answer) {
    std::vector<std::uint64_t> lengths;
    for (const SMime::LeafPart& part : answer.parts) {
        lengths.push_back(part.octets);
    }
    return lengths;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto read = [](const Norvane::Buffer& input) {
        const Outcome whole = outcomeOf(Norvane::MemoryMediaIn(input), false);
        const Outcome pieces =
            outcomeOf(Norvane::MediaIn(Norvane::makeReference<Dripping, Norvane::MediaInImpl>(input)), false);
        fuzz::require(whole.answer.verdict != SMime::Verdict::notSMime || whole.content.empty());
        if (isCertain(whole.answer)) {
            fuzz::require(whole.answer.verdict == pieces.answer.verdict && whole.content == pieces.content &&
                          whole.answer.layers.size() == pieces.answer.layers.size() &&
                          lengthsOf(whole.answer) == lengthsOf(pieces.answer));
        }
        const std::string mark = "a mark that stands outside";
        const std::string around = "Content-Type: multipart/mixed; boundary=\"=around=\"\r\n\r\n--=around=\r\n\r\n" +
                                   mark + "\r\n--=around=\r\n" + fuzz::text(input) + "\r\n--=around=\r\n\r\n" + mark +
                                   "\r\n--=around=--\r\n";
        const Outcome within = outcomeOf(Norvane::MemoryMediaIn(around), true);
        fuzz::require(within.content.find(mark) == std::string::npos ||
                      fuzz::text(input).find(mark) != std::string::npos);
        fuzz::require(!within.answer.notCovered.empty());
        readWithAll(input);
    };
    // Four times as many structures as a message may have, each with as much work as a structure may cost.
    return fuzz::run(data, size, read,
                     {.constant = UINT64_C(4) * 16 * 2 * CMS::maximumWork * 2 * 16 * 16, .perOctet = 200'000});
}
