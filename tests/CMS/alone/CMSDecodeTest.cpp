// Decoding from streams: whole structures, every cut, every flipped bit, and lengths that nobody backs with bytes.
#include "support/Cms.h"

#include <atomic>
#include <cstdlib>

using namespace cmstest;
namespace der = norvauthority::der;

namespace {

std::atomic<std::size_t> s_largestRequest{0};

void* countedMalloc(std::size_t length, const char* /*file*/, int /*line*/) {
    s_largestRequest = std::max(s_largestRequest.load(), length);
    return std::malloc(length);
}
void* countedRealloc(void* memory, std::size_t length, const char* /*file*/, int /*line*/) {
    s_largestRequest = std::max(s_largestRequest.load(), length);
    return std::realloc(memory, length);
}
void countedFree(void* memory, const char* /*file*/, int /*line*/) {
    std::free(memory);
}

// Possible only before OpenSSL's first allocation.
const bool s_counting = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;

const Bytes& body() {
    static const Bytes content = bodyOf(777);
    return content;
}

/// Detached, definite lengths, with the signer's certificate.
const Bytes& derStructure() {
    static const Bytes structure = signedByStream(identities().rsa, body());
    return structure;
}

/// Attached, indefinite lengths, with signed attributes: what a streaming sender makes.
const Bytes& berStructure() {
    static const Bytes structure = signedByOpenssl(identities().ec, body(), "SHA256", CMS_STREAM);
    return structure;
}

/// Looks at everything that a structure shows. Negative integers throw when asked for, which is their documented
/// answer.
std::size_t walk(const CMS::RefContentInfo& message) {
    std::size_t seen = 0;
    const auto number = [&](const auto& get) {
        try {
            seen += get().content().length();
        } catch (const Norvane::Exception& failure) {
            EXPECT_EQ(failure.where(), "ASN1::Integer::Integer");
            EXPECT_EQ(failure.lineNumber(), 25U);
        }
    };
    const auto identifier = [&](const CMS::IssuerAndSerialNumber& value) {
        seen += value.issuer().asString().size();
        number([&]() -> const auto& { return value.serialNumber(); });
    };
    seen += static_cast<std::size_t>(message->typeAsEnum()) + message->type().asString().size();
    const CMS::SignedData data = CMS::signedData(message);
    number([&]() -> const auto& { return data.version(); });
    if (!data.contentInfo().isNull()) {
        seen += data.contentInfo()->type().asString().size();
    }
    for (const auto& certificate : data.certificates()) {
        seen += certificate->subject().asString().size() + certificate->issuer().asString().size();
        number([&]() -> const auto& { return certificate->serialNumber(); });
        static_cast<void>(certificate->key());
        static_cast<void>(certificate->isCACert());
    }
    for (const auto& list : data.certificateRevocationLists()) {
        seen += list->crlInfo().issuer().asString().size();
    }
    for (const auto& signer : data.signerInfo()) {
        identifier(signer.issuerAndSerialNumber());
        seen += signer.digestAlgorithm().asString().size() + signer.signatureAlgorithm().asString().size() +
                signer.signature().length();
    }
    const CMS::EnvelopedData envelope = CMS::envelopedData(message);
    number([&]() -> const auto& { return envelope.version(); });
    for (const auto& recipient : envelope.recipientInfo()) {
        identifier(recipient.issuerAndSerialNumber());
    }
    seen += envelope.contentInfo().contentType().asString().size() +
            envelope.contentInfo().algorithm().asString().size() + envelope.contentInfo().data().length();
    if (Norvane::MediaIn content = CMS::embeddedContent(message); !content.isNull()) {
        std::string text;
        seen += static_cast<std::size_t>(content.read(text));
    }
    return seen;
}

void expectRefused(const Bytes& input, std::size_t piece) {
    const RecordedLog log;
    PiecewiseIn in(input, piece);
    const Caught failure = caught([&] { const CMS::RefContentInfo message(in); });
    EXPECT_EQ(failure.where, "CMS::_ContentInfo::_ContentInfo");
    EXPECT_EQ(failure.code, 4);
    EXPECT_EQ(failure.file, "CMS");
    EXPECT_EQ(failure.line, 389U);
    EXPECT_EQ(failure.details, std::vector<std::string>{"ASN1 Decode failed:"});
    ASSERT_EQ(log.records().size(), 1U);
    const auto record = log.records().front();
    EXPECT_EQ(record.event, 0x300005EU);
    EXPECT_EQ(record.level, 0);
    EXPECT_EQ(record.format, "%s\x01%s");
    ASSERT_EQ(record.fields.size(), 2U);
    EXPECT_EQ(record.fields[0], "Norvane::Crypto::CMS::_ContentInfo::_ContentInfo(Norvane::MediaIn&)");
    EXPECT_EQ(record.fields[1].substr(0, 2), "0x") << "OpenSSL's errors";
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

class Cut : public ::testing::TestWithParam<std::size_t> {};

void expectEveryPrefixRefused(const Bytes& structure, std::size_t piece) {
    for (std::size_t length = 0; length < structure.size(); ++length) {
        SCOPED_TRACE(length);
        expectRefused(Bytes(structure.begin(), structure.begin() + static_cast<std::ptrdiff_t>(length)), piece);
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

} // namespace

TEST_P(Cut, EveryProperPrefixOfDerIsRefused) {
    expectEveryPrefixRefused(derStructure(), GetParam());
}

TEST_P(Cut, EveryProperPrefixOfIndefiniteLengthBerIsRefused) {
    ASSERT_EQ(berStructure()[1], 0x80);
    expectEveryPrefixRefused(berStructure(), GetParam());
}

TEST_P(Cut, WholeStructuresDecode) {
    for (const Bytes& structure : {derStructure(), berStructure()}) {
        const RecordedLog log;
        PiecewiseIn in(structure, GetParam());
        const CMS::RefContentInfo message(in);
        EXPECT_EQ(message->typeAsEnum(), CMS::ContentInfo::SignedData);
        EXPECT_EQ(CMS::signedData(message).signerInfo().size(), 1U);
        EXPECT_EQ(CMS::signedData(message).certificates().size(), 1U);
        EXPECT_GT(walk(message), 300U);
        EXPECT_TRUE(log.records().empty());
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
}

INSTANTIATE_TEST_SUITE_P(Pieces, Cut, ::testing::Values(1, 7, 4096));

TEST(Decode, TruncatedDerIsRefused) {
    const Bytes& whole = derStructure();
    expectRefused(Bytes(whole.begin(), whole.end() - 1), 4096);
}

TEST(Decode, NothingAndNonsenseAreRefused) {
    expectRefused({}, 4096);
    expectRefused({0x00}, 4096);
    expectRefused(Bytes(100, 0x00), 4096);
    expectRefused(Bytes(100, 0xFF), 4096);
    expectRefused(
        bytesOf(std::string("-----BEGIN PKCS7-----\nMIAGCSqGSIb3DQEHAqCAMIACAQExADCABgkqhkiG9w0BBwEAAKCAAAAA\n")),
        4096);
    expectRefused(identities().rsa.certificate.der, 4096);
}

// A header may announce what it likes: memory is taken as bytes arrive.
TEST(Decode, TenBytesThatAnnounceAGibibyteFailAtOnceWithoutMemory) {
    ASSERT_TRUE(s_counting);
    const Bytes announcement{0x30, 0x84, 0x40, 0x00, 0x00, 0x00, 0x06, 0x09, 0x2A, 0x86};
    PiecewiseIn in(announcement);
    const RecordedLog log;
    s_largestRequest = 0;
    EXPECT_EQ(caught([&] { const CMS::RefContentInfo message(in); }).line, 389U);
    EXPECT_LT(s_largestRequest.load(), 1024U * 1024U);
    EXPECT_LE(in.body().reads(), 10U);
}

TEST(Decode, AnnouncementsInsideAStructureTakeNoMemoryEither) {
    ASSERT_TRUE(s_counting);
    // Indefinite outside, one gibibyte in the content.
    const Bytes announcement{0x30, 0x80, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D,
                             0x01, 0x07, 0x02, 0xA0, 0x84, 0x40, 0x00, 0x00, 0x00, 0x30};
    PiecewiseIn in(announcement);
    const RecordedLog log;
    s_largestRequest = 0;
    EXPECT_EQ(caught([&] { const CMS::RefContentInfo message(in); }).line, 389U);
    EXPECT_LT(s_largestRequest.load(), 1024U * 1024U);
}

TEST(Decode, LengthsBeyondTheMachinesAreRefused) {
    expectRefused({0x30, 0x88, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x06, 0x09}, 4096);
    expectRefused({0x30, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86}, 4096);
    expectRefused({0x30, 0x89, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x06}, 4096);
}

TEST(Decode, DeepNestingIsRefused) {
    Bytes nested;
    for (int level = 0; level < 100000; ++level) {
        nested.insert(nested.end(), {0x30, 0x80});
    }
    expectRefused(nested, 4096);
    Bytes closed = nested;
    closed.insert(closed.end(), nested.size(), 0x00);
    expectRefused(closed, 4096);
}

TEST(Decode, ManyCertificatesDecodeInOrder) {
    const Pkcs7 made(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
    ASSERT_EQ(PKCS7_content_new(made.get(), NID_pkcs7_data), 1);
    const auto certificate = identities().ec.certificate.x509();
    for (int count = 0; count < 2000; ++count) {
        ASSERT_EQ(PKCS7_add_certificate(made.get(), certificate.get()), 1);
    }
    PiecewiseIn in(derOf(made.get()), 1000);
    const CMS::RefContentInfo message(in);
    EXPECT_EQ(CMS::signedData(message).certificates().size(), 2000U);
}

// No sender makes them, and OpenSSL reads them: a content of another type whose tag number has an octet of its own.
TEST(Decode, TagsOfSeveralOctetsDecode) {
    const Bytes structure{0x30, 0x80, 0x06, 0x02, 0x2A, 0x03, 0xA0, 0x80, 0x5F, 0x21, 0x01, 0x07, 0, 0, 0, 0};
    const unsigned char* at = structure.data();
    ASSERT_NE(Pkcs7(d2i_PKCS7(nullptr, &at, static_cast<long>(structure.size()))), nullptr) << "OpenSSL reads it";
    PiecewiseIn in(structure);
    const CMS::RefContentInfo message(in);
    EXPECT_EQ(message->type().asString(), "1.2.3");
    EXPECT_EQ(message->typeAsEnum(), CMS::ContentInfo::Unknown);
}

// What follows a structure of definite length is left for the next reader.
TEST(Decode, BytesBehindADefiniteLengthStayUnread) {
    Bytes input = derStructure();
    input.insert(input.end(), {'m', 'o', 'r', 'e'});
    PiecewiseIn in(input);
    const CMS::RefContentInfo first(in);
    EXPECT_EQ(in.body().position(), derStructure().size());
    EXPECT_FALSE(in.atEnd());
    EXPECT_EQ(in.peek(), 'm');
}

TEST(Decode, TwoStructuresInOneStreamDecodeOneAfterTheOther) {
    Bytes input = derStructure();
    input.insert(input.end(), derStructure().begin(), derStructure().end());
    PiecewiseIn in(input, 7);
    const CMS::RefContentInfo first(in);
    const CMS::RefContentInfo second(in);
    EXPECT_TRUE(in.atEnd());
    EXPECT_EQ(derOf(first), derOf(second));
}

TEST(Decode, AtMostSixBytesBehindAnIndefiniteLengthAreRead) {
    Bytes input = berStructure();
    input.insert(input.end(), 100, 'x');
    PiecewiseIn in(input);
    const CMS::RefContentInfo message(in);
    EXPECT_EQ(message->typeAsEnum(), CMS::ContentInfo::SignedData);
    EXPECT_LE(in.body().position(), berStructure().size() + 6);
}

// OpenSSL decodes some extensions of revocation lists on the way, and queues errors for one that it cannot read,
// although the structure is sound.
TEST(Decode, AnUnreadableExtensionOfAListLeavesNothingInTheErrorQueue) {
    Bytes list = norvauthority::issueList({.issuer = &identities().authority, .crlNumber = "05"}).der;
    const Bytes number{0x55, 0x1D, 0x14, 0x04, 0x03, 0x02, 0x01, 0x05};
    const auto at = std::search(list.begin(), list.end(), number.begin(), number.end());
    ASSERT_NE(at, list.end());
    at[5] = 0x0C; // its number is a text
    const Bytes structure = der::sequence(
        {der::oid("1.2.840.113549.1.7.2"),
         der::element(der::contextConstructed(0),
                      der::sequence({der::integer("1"), der::set({}), der::sequence({der::oid("1.2.840.113549.1.7.1")}),
                                     der::element(der::contextConstructed(1), list), der::set({})}))});
    ERR_raise(ERR_LIB_USER, 77);
    PiecewiseIn in(structure);
    const CMS::RefContentInfo message(in);
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 77);
    EXPECT_EQ(ERR_get_error(), 0UL);
    const CMS::SignedData data = CMS::signedData(message);
    ASSERT_EQ(data.certificateRevocationLists().size(), 1U);
    EXPECT_EQ(data.certificateRevocationLists().front()->crlNumber().object(), nullptr);
    EXPECT_EQ(ERR_get_error(), 0UL);
}

TEST(Decode, AStreamsExceptionPassesUnchangedWhereverItComes) {
    const RecordedLog log;
    for (const Bytes& structure : {derStructure(), berStructure()}) {
        for (std::size_t failAt = 0; failAt < structure.size(); failAt += 13) {
            PiecewiseIn in(structure, 100, failAt);
            std::string what;
            try {
                const CMS::RefContentInfo message(in);
            } catch (const std::runtime_error& failure) {
                what = failure.what();
            }
            EXPECT_EQ(what, "the line went dead") << failAt;
            EXPECT_EQ(ERR_peek_error(), 0UL);
        }
    }
    EXPECT_TRUE(log.records().empty()) << "the stream failed, not the structure";
}

TEST(Decode, AStructureNeverTouchesItsSourceAgain) {
    auto in = std::make_unique<PiecewiseIn>(derStructure());
    const Norvane::MediaIn body(*in);
    const CMS::RefContentInfo message(*in);
    const unsigned int reads = in->body().reads();
    EXPECT_GT(walk(message), 300U);
    EXPECT_EQ(in->body().reads(), reads);
    in.reset();
    EXPECT_GT(walk(message), 300U);
}

TEST(Decode, ANullStreamThrowsAsEveryNullHandle) {
    Norvane::MediaIn none;
    const Caught failure = caught([&] { const CMS::RefContentInfo message(none); });
    EXPECT_EQ(failure.where, "operator->");
    EXPECT_EQ(failure.code, 1);
}

// Every bit of a signed structure is flipped once. Most flips do not decode; the rest can be looked at throughout, and
// a changed signature never verifies.
TEST(Decode, EveryFlippedBitIsRefusedOrWalkedThroughout) {
    const Bytes structure = signedByOpenssl(identities().ec, body(), "SHA256", CMS_DETACHED | CMS_NOCERTS);
    const auto certificate = certificateOf(identities().ec);
    ASSERT_TRUE(Received(structure).accepts(body(), certificate));
    const std::size_t signature = structure.size() - Received(structure).signer().signature().length();
    std::size_t decoded = 0;
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < structure.size() * 8; ++bit) {
        SCOPED_TRACE(bit);
        const RecordedLog log;
        Bytes flipped = structure;
        flipped[bit / 8] = static_cast<unsigned char>(flipped[bit / 8] ^ (1U << (bit % 8)));
        PiecewiseIn in(flipped);
        try {
            const CMS::RefContentInfo message(in);
            walk(message);
            ++decoded;
        } catch (const Norvane::Exception& failure) {
            EXPECT_EQ(failure.lineNumber(), 389U);
            ++refused;
        }
        try {
            const Received received(flipped);
            const CMS::SignedData data = CMS::signedData(received.verifier.contentInfo());
            for (const auto& signer : data.signerInfo()) {
                PiecewiseIn content(body());
                const bool good = received.verifier.isValid(content, signer, certificate);
                EXPECT_FALSE(good && bit / 8 >= signature);
            }
        } catch (const Norvane::Exception& failure) {
            EXPECT_TRUE(failure.lineNumber() == 389U || failure.where() == "Crypto::Hasher") << failure.asString();
        }
        EXPECT_EQ(ERR_peek_error(), 0UL);
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_GT(decoded, 1000U);
    EXPECT_GT(refused, 300U);
}

TEST(Decode, EveryFlippedByteOfAStructureWithCertificatesIsRefusedOrWalkedThroughout) {
    for (const Bytes& structure : {derStructure(), berStructure()}) {
        for (std::size_t at = 0; at < structure.size(); ++at) {
            SCOPED_TRACE(at);
            const RecordedLog log;
            Bytes flipped = structure;
            flipped[at] = static_cast<unsigned char>(flipped[at] ^ 0x80U);
            PiecewiseIn in(flipped, 500);
            try {
                const CMS::RefContentInfo message(in);
                walk(message);
            } catch (const Norvane::Exception& failure) {
                EXPECT_EQ(failure.lineNumber(), 389U);
            }
            EXPECT_EQ(ERR_peek_error(), 0UL);
            if (HasFailure()) {
                return;
            }
        }
    }
}
