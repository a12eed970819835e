// What the envelope writer writes, the envelope reader reads: X25519 too, and everything up to the writer's limits.
#include "support/EnvelopeWriting.h"

#include <norvcrypto/CMSEnvelopeReader.h>

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;

namespace {

/// The body by the key of one person.
std::optional<Bytes> readBy(const Bytes& message, const Identity& person) {
    PiecewiseIn in(message, 5000);
    CMS::EnvelopeReader reader(in);
    const CMS::KeyListLookup keys({pairOf(person)});
    if (!reader.open(keys)) {
        return std::nullopt;
    }
    Norvane::MemoryMediaOut clear;
    reader.write(clear);
    if (reader.verdict() != CMS::EnvelopeReader::Complete) {
        return std::nullopt;
    }
    return bytesOf(clear.content());
}

class EnvelopeRead : public ::testing::TestWithParam<int> {};

} // namespace

TEST_P(EnvelopeRead, ByEveryKindOfKey) {
    const auto cipher = static_cast<ContentCipher>(GetParam());
    const Bytes body = bodyOf(70000);
    for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
        for (const char* curve : {"P-256", "P-384", "P-521", "X25519"}) {
            const EnvelopeRecipient recipient(certificateOf(onCurve(curve)), CMS::NamedBy::subjectKeyIdentifier);
            const Bytes message = written({recipient}, cipher, {encoding}, body);
            EXPECT_TRUE(readBy(message, onCurve(curve)) == body) << curve;
        }
        for (const Addressee& addressee : addressees()) {
            if (addressee.identity != nullptr) {
                const Bytes message = written({addressee.recipient}, cipher, {encoding}, body);
                EXPECT_TRUE(readBy(message, *addressee.identity) == body) << addressee.name;
            }
        }
    }
}
INSTANTIATE_TEST_SUITE_P(EnvelopeWriter, EnvelopeRead, ::testing::Range(0, 7));

TEST(EnvelopeReadBack, WithAnAuthenticatedContentType) {
    EnvelopeOptions options;
    options.cipher = ContentCipher::aes256Gcm;
    options.contentType = "1.2.840.113549.1.7.2";
    const Identity& alice = identities().rsa;
    const Bytes message = written({EnvelopeRecipient(certificateOf(alice))}, options, bodyOf(100));
    EXPECT_TRUE(readBy(message, alice) == bodyOf(100));
}

/// As many octets of recipients as are written are read.
TEST(EnvelopeReadBack, TheLongestHead) {
    const auto named = [](std::size_t length) {
        const Identity odd = norvauthority::issue({.subject = {{"CN", "odd"}},
                                                   .key = storedKey("alice"),
                                                   .issuer = &identities().authority,
                                                   .subjectKeyIdentifierValue = der::octetString(Bytes(length, 7))});
        return EnvelopeRecipient(certificateOf(odd), CMS::NamedBy::subjectKeyIdentifier);
    };
    const Identity& alice = identities().rsa;
    const EnvelopeRecipient plain(certificateOf(alice));
    constexpr std::size_t most = CMS::maximumRecipientOctets;
    const auto sizeOf = [](const EnvelopeRecipient& recipient) {
        const Node contentInfo = nodeOf(written({recipient}, EnvelopeOptions(), {}));
        return contentInfo.at(1).at(0).at(1).at(0).whole.size();
    };
    const std::size_t ofPlain = sizeOf(plain);
    const std::size_t ofOther = sizeOf(named(60000)) - 60000;
    std::vector<EnvelopeRecipient> recipients(69, named(60000));
    recipients.insert(recipients.begin(), plain);
    const std::size_t left = most - ofPlain - 69 * (60000 + ofOther);
    recipients.push_back(named(left - ofOther));
    EnvelopeOptions options;
    options.contentType = "1.2." + std::string(252, '1');
    options.cipher = ContentCipher::aes256Gcm;
    EXPECT_TRUE(readBy(written(recipients, options, bodyOf(10)), alice) == bodyOf(10));
    recipients.pop_back();
    recipients.push_back(named(left - ofOther + 1));
    EXPECT_THROW(written(recipients, options, bodyOf(10)), Norvane::Exception);
}
