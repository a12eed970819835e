// What reading and judging a message costs, counted at OpenSSL and in memory: a stranger chooses every count in it.
#include "support/Allocations.h"
#include "support/Interpose.h"
#include "support/SignedMessages.h"
#include "support/Thrown.h"

#include <norvcmsg/BytesInMemory.h>

#include <sys/mman.h>

using namespace cmstest;
using CMS::SignatureReason;
using CMS::SignatureReport;
using CMS::SignatureVerdict;
using CMS::SignedReader;

namespace {

int s_certificates = 0;
int s_names = 0;
int s_identifiers = 0;
int s_verifications = 0;
int s_attributeSets = 0;
std::size_t s_digested = 0;
std::size_t s_allocated = 0;
int s_withoutDigest = NID_undef; ///< as if no provider had this one
int s_failingName = -1;          ///< the call that finds no memory, counted from 0

void startCounting() {
    norvtest::s_beforeAllocation = [](std::size_t length) { s_allocated += length; };
    s_certificates = s_names = s_identifiers = s_verifications = s_attributeSets = 0;
    s_digested = s_allocated = 0;
}

} // namespace

extern "C" {

X509* d2i_X509(X509** reused, const unsigned char** in, long length) {
    ++s_certificates;
    return norvtest::next<&d2i_X509>("d2i_X509")(reused, in, length);
}
X509_NAME* d2i_X509_NAME(X509_NAME** reused, const unsigned char** in, long length) {
    ++s_names;
    if (s_failingName >= 0 && s_failingName-- == 0) {
        norvtest::failIn("d2i_X509_NAME", ERR_LIB_ASN1, ERR_R_MALLOC_FAILURE);
        return nullptr;
    }
    return norvtest::next<&d2i_X509_NAME>("d2i_X509_NAME")(reused, in, length);
}
ASN1_OBJECT* d2i_ASN1_OBJECT(ASN1_OBJECT** reused, const unsigned char** in, long length) {
    ++s_identifiers;
    return norvtest::next<&d2i_ASN1_OBJECT>("d2i_ASN1_OBJECT")(reused, in, length);
}
int EVP_PKEY_verify(EVP_PKEY_CTX* context, const unsigned char* signature, std::size_t signatureLength,
                    const unsigned char* digest, std::size_t digestLength) {
    ++s_verifications;
    return norvtest::next<&EVP_PKEY_verify>("EVP_PKEY_verify")(context, signature, signatureLength, digest,
                                                               digestLength);
}
ASN1_VALUE* ASN1_item_d2i(ASN1_VALUE** reused, const unsigned char** in, long length, const ASN1_ITEM* item) {
    s_attributeSets += item == ASN1_ITEM_rptr(PKCS7_ATTR_SIGN) ? 1 : 0;
    return norvtest::next<&ASN1_item_d2i>("ASN1_item_d2i")(reused, in, length, item);
}
int EVP_DigestInit_ex(EVP_MD_CTX* context, const EVP_MD* digest, ENGINE* engine) {
    if (s_withoutDigest != NID_undef && digest != nullptr && EVP_MD_get_type(digest) == s_withoutDigest) {
        return norvtest::failIn("EVP_DigestInit_ex", ERR_LIB_EVP, EVP_R_UNSUPPORTED_ALGORITHM);
    }
    return norvtest::next<&EVP_DigestInit_ex>("EVP_DigestInit_ex")(context, digest, engine);
}
int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t length) {
    s_digested += length;
    return norvtest::next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, data, length);
}
}

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(10000);
    return content;
}

SignatureReport countedReport(const Bytes& structure) {
    StrictIn in(structure, 100000);
    startCounting();
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    return message.report();
}

/// An attached message with that signer and those certificates.
HandMade messageBy(const std::vector<Bytes>& signers, const std::vector<Bytes>& certificates) {
    return {.digestAlgorithms = {algorithm("SHA256", true)},
            .content = der::octetString(body()),
            .certificates = certificates,
            .signers = signers};
}

const Bytes& sound() {
    static const Bytes made = [] {
        HandMadeSigner signer;
        signer.attributes = usualAttributes(body());
        return signer.made(body());
    }();
    return made;
}

/// The beginning of a certificate with these names, and nothing that is right behind them.
Bytes certificateLike(const Bytes& issuer, const std::string& serial) {
    return der::sequence({der::sequence({der::integer(serial), algorithm("SHA256"), issuer})});
}

/// A body of zeros of any length in a message, made while it is read.
class HugeInImpl : public Norvane::MediaInImpl {
public:
    HugeInImpl(Bytes head, std::uint64_t zeros, Bytes tail)
        : m_head(std::move(head)),
          m_zeros(zeros),
          m_tail(std::move(tail)) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_position == m_head.size() + m_zeros + m_tail.size(); }
    int peek() const override { return -1; }
    int read(unsigned char* out, unsigned int length) override {
        std::uint64_t count = 0;
        if (m_position < m_head.size()) {
            count = std::min<std::uint64_t>(length, m_head.size() - m_position);
            std::copy_n(m_head.data() + m_position, count, out);
        } else if (m_position < m_head.size() + m_zeros) {
            count = std::min<std::uint64_t>(length, m_head.size() + m_zeros - m_position);
            std::fill_n(out, count, 0);
        } else {
            const std::uint64_t at = m_position - m_head.size() - m_zeros;
            count = std::min<std::uint64_t>(length, m_tail.size() - at);
            std::copy_n(m_tail.data() + at, count, out);
        }
        m_position += count;
        return static_cast<int>(count);
    }

private:
    Bytes m_head;
    std::uint64_t m_zeros;
    Bytes m_tail;
    std::uint64_t m_position = 0;
};

/// The header of an element whose content is that long.
Bytes headerOf(unsigned char tag, std::uint64_t length) {
    Bytes header{tag, 0x88};
    for (int shift = 56; shift >= 0; shift -= 8) {
        header.push_back(static_cast<unsigned char>(length >> shift));
    }
    return header;
}

} // namespace

TEST(SignedReaderWork, TwentyCertificatesCostWhatOneDoes) {
    std::vector<Bytes> certificates{identities().rsa.certificate.der};
    EXPECT_TRUE(countedReport(messageBy({sound()}, certificates).made()).allGood());
    EXPECT_EQ(s_certificates, 1);
    EXPECT_EQ(s_verifications, 1);
    for (int number = 0; number < 19; ++number) {
        certificates.insert(certificates.begin(), identities().otherRsa.certificate.der);
    }
    EXPECT_TRUE(countedReport(messageBy({sound()}, certificates).made()).allGood());
    EXPECT_EQ(s_certificates, 1);
    EXPECT_EQ(s_names, 0);
    EXPECT_EQ(s_verifications, 1);
}

TEST(SignedReaderWork, ACertificateThatIsKnownIsAllThatIsNeeded) {
    const NVX509::RefCertificate certificate = certificateOf(identities().rsa);
    StrictIn in(messageBy({sound()}, std::vector<Bytes>(20, identities().rsa.certificate.der)).made());
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    startCounting();
    EXPECT_TRUE(message.isValid(message.signers().front(), certificate));
    EXPECT_EQ(s_certificates, 0);
    EXPECT_EQ(s_verifications, 1);
}

TEST(SignedReaderWork, VerdictsAreKept) {
    StrictIn in(messageBy({sound()}, {identities().rsa.certificate.der}).made());
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    EXPECT_TRUE(message.report().allGood());
    startCounting();
    EXPECT_TRUE(message.report().allGood());
    EXPECT_EQ(s_certificates, 0);
    EXPECT_EQ(s_verifications, 0);
    EXPECT_EQ(s_digested, 0U);
}

TEST(SignedReaderWork, ThreeHundredThousandDigestAlgorithms) {
    HandMade message = messageBy({sound()}, {identities().rsa.certificate.der});
    message.digestAlgorithms.assign(299999, algorithm("1.2.3.4.5"));
    message.digestAlgorithms.push_back(algorithm("SHA256"));
    EXPECT_TRUE(countedReport(message.made()).allGood());
    EXPECT_LT(s_identifiers, 20);
    EXPECT_LT(s_digested, 2 * body().size());
    // Different ones, of which no more are looked up than there are digests.
    for (std::size_t at = 0; at != 20000; ++at) {
        message.digestAlgorithms[at] = algorithm("1.2.3." + std::to_string(at));
    }
    EXPECT_EQ(countedReport(message.made()).signers.front().reason, SignatureReason::digestNotAnnounced);
    EXPECT_LT(s_identifiers, 60);
    EXPECT_LT(s_digested, body().size()) << "a certificate's fingerprint";
}

TEST(SignedReaderWork, FourDigestsOfTheBodyAtMost) {
    HandMade message = messageBy({sound()}, {identities().rsa.certificate.der});
    message.digestAlgorithms.clear();
    for (const char* name : {"MD5", "SHA1", "SHA224", "SHA384", "SHA512", "SHA3-256", "SHA256"}) {
        message.digestAlgorithms.push_back(algorithm(name));
    }
    EXPECT_EQ(countedReport(message.made()).signers.front().reason, SignatureReason::tooManyDigests);
    EXPECT_GE(s_digested, 4 * body().size());
    EXPECT_LT(s_digested, 5 * body().size());
}

TEST(SignedReaderWork, AHundredSignersAndNotOneMore) {
    const std::vector<Bytes> certificates{identities().rsa.certificate.der};
    const SignatureReport report = countedReport(messageBy(std::vector<Bytes>(100, sound()), certificates).made());
    EXPECT_EQ(report.signers.size(), 100U);
    EXPECT_TRUE(report.allGood());
    EXPECT_EQ(s_certificates, 1);
    const Bytes many = messageBy(std::vector<Bytes>(10000, sound()), certificates).made();
    SignedReader::Budget budget;
    budget.tail = many.size();
    StrictIn in(many, 100000);
    SignedReader message(in, budget);
    Norvane::NullMediaOut out;
    const auto thrown = norvtest::thrownBy([&] { message.write(out); });
    norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
    EXPECT_EQ(norvtest::detailOf(thrown), "more than 100 signers");
}

// OpenSSL knows digests by name that no provider of an installation need have.
TEST(SignedReaderWork, ADigestThatDoesNotStartIsUnsupported) {
    HandMadeSigner signer;
    signer.digestAlgorithm = algorithm("RIPEMD160", true);
    HandMadeSigner countersigner = signer;
    const Bytes signature = signatureBy(identities().rsa.key, body(), EVP_sha256());
    signer.unsignedAttributes = {attribute(countersignatureAttribute, {countersigner.made(signature)})};
    HandMade message = messageBy({signer.made(body())}, {identities().rsa.certificate.der});
    message.digestAlgorithms = {signer.digestAlgorithm};
    const norvtest::During<int> without(s_withoutDigest, NID_ripemd160);
    const auto expectUnsupported = [](const CMS::SignatureResult& result) {
        EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
        EXPECT_EQ(result.reason, SignatureReason::digestAlgorithm) << CMS::textOf(result.reason);
        EXPECT_EQ(result.algorithm, "ripemd160");
    };
    const Read read(message.made());
    expectUnsupported(read.verdict());
    ASSERT_EQ(read.signer().countersigners().size(), 1U);
    expectUnsupported(read.message.verdict(read.signer().countersigners().front()));

    Norvane::MemoryMediaIn in(bufferOf(message.made()));
    Norvane::MemoryMediaIn bodyIn(bufferOf(body()));
    expectUnsupported(CMS::verifySignatures(CMS::RefContentInfo(in), bodyIn).signers.front());
}

// Likewise the digest of a signing certificate attribute: it is no want of memory, and says nothing against the certificate.
TEST(SignedReaderWork, ADigestOfTheCertificateThatDoesNotStartIsUnsupported) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    const Bytes hash = der::octetString(digestOf(identities().rsa.certificate.der, EVP_ripemd160()));
    signer.attributes->push_back(
        attribute("1.2.840.113549.1.9.16.2.47",
                  {der::sequence({der::sequence({der::sequence({algorithm("RIPEMD160"), hash})})})}));
    const Bytes made = attachedBy(signer, body());
    EXPECT_EQ(Read(made).verdict().verdict, SignatureVerdict::good);
    const norvtest::During<int> without(s_withoutDigest, NID_ripemd160);
    const CMS::SignatureResult result = Read(made).verdict();
    EXPECT_EQ(result.verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(result.reason, SignatureReason::digestAlgorithm) << CMS::textOf(result.reason);
    EXPECT_EQ(result.algorithm, "ripemd160");
}

TEST(SignedReaderWork, TheSignersOfAMessageShareALimit) {
    // RSA with 16384 bits takes 4 ms with an exponent of 64 bits; none of these signatures is good.
    const Identity slow = namedLikeRsa(publicRsa(16384, 64));
    const SignatureReport report =
        countedReport(messageBy(std::vector<Bytes>(100, sound()), {slow.certificate.der}).made());
    EXPECT_EQ(report.signers.front().reason, SignatureReason::signatureWrong);
    EXPECT_EQ(report.signers.back().reason, SignatureReason::tooMuchWork);
    EXPECT_EQ(s_verifications, 30) << "500,000 / 16,384";
    const Identity slower = namedLikeRsa(publicRsa(2048, 2000));
    EXPECT_EQ(countedReport(messageBy({sound()}, {slower.certificate.der}).made()).signers.front().reason,
              SignatureReason::keyTooLarge);
    EXPECT_EQ(s_verifications, 0);
}

TEST(SignedReaderWork, ThousandsOfAttributesAreDigestedOnceAndNotDecoded) {
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    const Bytes more =
        attribute("1.2.840.113549.1.9.99", {der::octetString(Bytes(60))}); // sorted behind the usual ones
    signer.attributes->insert(signer.attributes->end(), 50000, more);
    const Bytes made = signer.made(body());
    EXPECT_TRUE(countedReport(messageBy({made}, {identities().rsa.certificate.der}).made()).allGood());
    EXPECT_EQ(s_attributeSets, 0);
    EXPECT_LT(s_digested, body().size() + made.size() + 2000) << "a fingerprint of the certificate beside them";
    std::swap(signer.attributes->front(), signer.attributes->back());
    const SignatureReport report =
        countedReport(messageBy({signer.made(body())}, {identities().rsa.certificate.der}).made());
    EXPECT_EQ(report.signers.front().verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(report.signers.front().reason, SignatureReason::attributesNotDer);
    EXPECT_EQ(s_attributeSets, 0);
    EXPECT_EQ(s_verifications, 0);
}

TEST(SignedReaderWork, NamesAreDecodedOnceHoweverManySignersThereAre) {
    std::vector<Bytes> certificates;
    certificates.reserve(2501);
    for (int number = 0; number < 2500; ++number) {
        certificates.push_back(
            certificateLike(norvauthority::Name{{"CN", "not " + std::to_string(number)}}.der(), "a11ce"));
    }
    const SignatureReport report = countedReport(messageBy(std::vector<Bytes>(100, sound()), certificates).made());
    EXPECT_EQ(report.signers.back().reason, SignatureReason::certificateMissing);
    EXPECT_LE(s_names, 2600);
    EXPECT_EQ(s_certificates, 0);

    certificates.push_back(certificateLike(norvauthority::Name{{"CN", "one more"}}.der(), "1"));
    EXPECT_EQ(countedReport(messageBy({sound()}, certificates).made()).signers.front().reason,
              SignatureReason::tooManyCertificates);
    EXPECT_EQ(s_names, 0);
    StrictIn in(messageBy({sound()}, certificates).made());
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { static_cast<void>(message.certificates()); })),
              "more than 2500 certificates");
    EXPECT_EQ(message.encodedCertificates().size(), 2501U);
}

// A name that does not decode shows it only at its end.
TEST(SignedReaderWork, ANameThatIsNoneIsDecodedOnceHoweverManyCertificatesThereAre) {
    std::vector<Bytes> certificates;
    certificates.reserve(1000);
    for (int number = 0; number < 1000; ++number) {
        certificates.push_back(
            certificateLike(norvauthority::Name{{"CN", "not " + std::to_string(number)}}.der(), "a11ce"));
    }
    HandMadeSigner signer;
    signer.attributes = usualAttributes(body());
    const Bytes entry = der::sequence({der::oid("2.5.4.3"), der::element(0x0C, {'a'})});
    signer.name =
        der::sequence({der::sequence({der::set({entry}), der::set({der::octetString({1})})}), der::integer("a11ce")});
    const SignatureReport report = countedReport(messageBy({signer.made(body())}, certificates).made());
    EXPECT_EQ(report.signers.front().reason, SignatureReason::certificateMissing);
    EXPECT_LE(s_names, 1001);
}

TEST(SignedReaderWork, CostlyCertificatesAreNotDecoded) {
    Bytes curve = certificateLike(identities().authority.name.der(), "a11ce");
    // The parts of a certificate up to a key on a curve that is spelled out.
    const Bytes key = der::sequence({der::sequence({der::oid("1.2.840.10045.2.1"), der::sequence({der::integer("1")})}),
                                     der::bitString({4, 1, 2})});
    curve = der::sequence({der::sequence({der::integer("a11ce"), algorithm("SHA256"), identities().authority.name.der(),
                                          der::sequence({}), der::sequence({}), key})});
    const SignatureReport report = countedReport(messageBy({sound()}, {curve}).made());
    EXPECT_EQ(report.signers.front().verdict, SignatureVerdict::unsupported);
    EXPECT_EQ(report.signers.front().reason, SignatureReason::certificateRefused);
    EXPECT_EQ(report.signers.front().algorithm, "refused: explicit elliptic curve parameters");
    EXPECT_EQ(s_certificates, 0);
}

TEST(SignedReaderWork, WhatIsKeptIsBounded) {
    SignedReader::Budget budget;
    budget.tail = 2000;
    const Bytes made = messageBy({sound()}, std::vector<Bytes>(20, identities().rsa.certificate.der)).made();
    StrictIn in(made);
    SignedReader message(in, budget);
    Norvane::NullMediaOut out;
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { message.write(out); })), "an element that is too long");
    budget.head = 10;
    StrictIn again(made);
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { SignedReader other(again, budget); })),
              "an element that is too long");
    // Lengths are announced and nothing comes.
    for (const unsigned char tag : {der::setTag, der::contextConstructed(0)}) {
        Bytes announced = headerOf(tag, 4000000);
        Bytes cut = der::concat(
            {{0x30, 0x80}, der::oid("1.2.840.113549.1.7.2"), {0xA0, 0x80, 0x30, 0x80}, der::integer("1"), announced});
        StrictIn short_(cut);
        startCounting();
        EXPECT_THROW(SignedReader other(short_), Norvane::Exception);
        EXPECT_LT(s_allocated, 200000U);
    }
}

/// A source over memory that nobody else holds, most of which was never touched.
class LargeIn : public Norvane::MediaInImpl, public Norvane::BytesInMemory {
public:
    explicit LargeIn(std::size_t length) : m_length(length) {
        m_data = static_cast<unsigned char*>(
            mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        EXPECT_NE(m_data, MAP_FAILED);
    }
    ~LargeIn() override { munmap(m_data, m_length); }
    void put(std::size_t at, const Bytes& octets) { std::copy(octets.begin(), octets.end(), m_data + at); }
    using MediaInImpl::read;
    bool atEnd() const override { return left() == 0; }
    int peek() const override { return atEnd() ? -1 : *rest(); }
    int read(unsigned char*, unsigned int) override { return 0; }
    const unsigned char* rest() const noexcept override { return m_data + m_position; }
    unsigned long left() const noexcept override { return m_length - m_position; }
    void skip(unsigned long count) noexcept override { m_position += count; }

private:
    std::size_t m_length;
    std::size_t m_position = 0;
    unsigned char* m_data = nullptr;
};

/// Elements that a `Buffer` cannot hold are refused, not cut off.
// A content that may be signed as a whole, as Ed25519 signs it beside SHA-512 (RFC 8419, 3.1), is kept: here there is no room for it.
// What was read in vain once stays so, though memory is there again.
TEST(SignedReaderWork, WantOfMemoryForTheContentIsNotForgotten) {
    static constexpr std::size_t length = 4567;
    StrictIn in(signedMessage({&identities().rsa}, {"sha512"}, bodyOf(length), 0));
    SignedReader message(in);
    Norvane::NullMediaOut out;
    norvtest::s_beforeAllocation = [](std::size_t wanted) {
        if (wanted == length) {
            throw std::bad_alloc();
        }
    };
    EXPECT_THROW(message.write(out), std::bad_alloc);
    norvtest::s_beforeAllocation = nullptr;
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(message.signers()); });
    norvtest::expectFailure(thrown, "CMS::SignedReader", 4, "CMSSignedReader");
    EXPECT_EQ(norvtest::detailOf(thrown), "the source failed");
    EXPECT_FALSE(message.isComplete());
}

/// Asks without memory for one allocation, each in turn, and then once more: there is no answer, and the whole one afterwards.
template <class Ask> void expectWholeAnswersAfterwards(const Bytes& structure, Ask ask) {
    static int left = 0;
    const auto expected = ask(Read(structure).message);
    int failed = 0;
    for (bool came = true; came; ++failed) {
        const Read read(structure);
        left = failed;
        norvtest::s_beforeAllocation = [](std::size_t) {
            if (left-- == 0) {
                throw std::bad_alloc();
            }
        };
        try {
            static_cast<void>(ask(read.message));
        } catch (const std::bad_alloc&) { // as it should be
        }
        norvtest::s_beforeAllocation = nullptr;
        came = left < 0;
        EXPECT_EQ(ask(read.message), expected) << "after allocation " << failed;
    }
    EXPECT_GT(failed, 2);
}

// What there was no memory for a moment ago is not taken for what the message holds.
TEST(SignedReaderWork, WantOfMemoryForAnAnswerIsForgotten) {
    HandMadeSigner first;
    first.attributes = usualAttributes(body());
    const HandMadeSigner countersigner;
    const Bytes signature = signatureBy(identities().rsa.key, der::set(*first.attributes), EVP_sha256());
    first.unsignedAttributes = {
        attribute(countersignatureAttribute, {countersigner.made(signature), countersigner.made(signature)})};
    HandMadeSigner second{.identity = &identities().otherRsa, .byKeyIdentifier = true};
    second.attributes = usualAttributes(body());
    const Bytes made = messageBy({first.made(body()), second.made(body())},
                                 {identities().rsa.certificate.der, identities().otherRsa.certificate.der})
                           .made();
    expectWholeAnswersAfterwards(made, [](const SignedReader& message) {
        std::vector<SignatureReason> reasons;
        for (const CMS::SignatureResult& result : message.report().signers) {
            reasons.push_back(result.reason);
        }
        return reasons;
    });
    expectWholeAnswersAfterwards(
        made, [](const SignedReader& message) { return message.signers().front().countersigners().size(); });
    expectWholeAnswersAfterwards(made, [](const SignedReader& message) { return message.certificates().size(); });
}

TEST(SignedReaderWork, WantOfMemoryForANameIsNoVerdict) {
    HandMadeSigner signer; // whose name is the certificate's in other letters, so that both have to be decoded
    signer.attributes = usualAttributes(body());
    const norvauthority::Name other{{"CN", "TEST  authority", 19}, {"O", "mail", 19}};
    signer.name = der::sequence({other.der(), der::integer("a11ce")});
    const Bytes made = attachedBy(signer, body());
    for (int failing = 0; failing != 2; ++failing) {
        const Read read(made);
        static_cast<void>(read.message.signers());
        s_failingName = failing;
        EXPECT_THROW(static_cast<void>(read.message.report()), std::bad_alloc);
        s_failingName = -1;
        EXPECT_TRUE(read.message.report().allGood());
    }
}

TEST(SignedReaderWork, PartsBeyondTwoGibibytesAreRefusedWhateverTheBudgetIs) {
    Bytes head{0x30, 0x80};
    der::append(head, der::oid("1.2.840.113549.1.7.2"));
    der::append(head, {0xA0, 0x80, 0x30, 0x80, 0x02, 0x01, 0x01, 0x31, 0x00});
    der::append(head, der::sequence({der::oid("1.2.840.113549.1.7.1")}));
    der::append(head, {0xA0, 0x88, 0, 0, 0, 1, 0, 0, 0, 26});
    der::append(head, {0x30, 0x88, 0, 0, 0, 1, 0, 0, 0, 16}); // a certificate of 4 GiB
    const std::size_t behind = head.size() + (std::size_t{1} << 32U) + 16;
    const Bytes tail{0x31, 0x00, 0, 0, 0, 0, 0, 0};
    const Norvane::MediaIn source(Norvane::makeReference<LargeIn, Norvane::MediaInImpl>(behind + tail.size()));
    auto& memory = dynamic_cast<LargeIn&>(*source.operator->());
    memory.put(0, head);
    memory.put(behind, tail);
    SignedReader::Budget budget;
    budget.tail = std::numeric_limits<std::size_t>::max();
    const auto thrown =
        norvtest::thrownBy([&] { EXPECT_EQ(SignedReader(source, budget).encodedCertificates().front().length(), 0U); });
    EXPECT_EQ(norvtest::detailOf(thrown), "an element that is too long");
}

TEST(SignedReaderWork, SegmentsCanBeBounded) {
    Bytes segments;
    for (int i = 0; i < 1000; ++i) {
        der::append(segments, der::octetString({1}));
    }
    HandMade message = messageBy({sound()}, {});
    message.content = der::element(0x24, segments);
    SignedReader::Budget budget;
    budget.segments = 999;
    StrictIn in(message.made());
    SignedReader reader(in, budget);
    Norvane::NullMediaOut out;
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { reader.write(out); })), "a string of too many segments");
}

TEST(SignedReaderWork, MoreThanFourGibibytesInLittleMemory) {
    constexpr std::uint64_t length = (UINT64_C(1) << 32U) + 12345;
    // head -c 4294979641 /dev/zero | sha1sum
    const Bytes digest = norvauthority::fromHex("d1f442b9586a919aa576739fa5f625be541d6912");
    HandMadeSigner signer;
    signer.digestAlgorithm = algorithm("SHA1");
    signer.digest = EVP_sha1();
    signer.attributes = std::vector<Bytes>{attribute(contentTypeAttribute, {der::oid("1.2.840.113549.1.7.1")}),
                                           attribute(messageDigestAttribute, {der::octetString(digest)})};
    const Bytes tail = der::concat({{0, 0, 0, 0},
                                    der::element(der::contextConstructed(0), identities().rsa.certificate.der),
                                    der::set({signer.made({})}),
                                    {0, 0, 0, 0, 0, 0}});
    const Bytes head = der::concat({{0x30, 0x80},
                                    der::oid("1.2.840.113549.1.7.2"),
                                    {0xA0, 0x80, 0x30, 0x80},
                                    der::integer("1"),
                                    der::set({signer.digestAlgorithm}),
                                    {0x30, 0x80},
                                    der::oid("1.2.840.113549.1.7.1"),
                                    {0xA0, 0x80},
                                    headerOf(der::octetStringTag, length)});
    const Norvane::MediaIn in(Norvane::makeReference<HugeInImpl, Norvane::MediaInImpl>(head, length, tail));
    startCounting();
    SignedReader message(in);
    Norvane::NullMediaOut out;
    message.write(out);
    EXPECT_EQ(out.tell(), length);
    EXPECT_EQ(message.bodyLength(), length);
    EXPECT_TRUE(message.report().allGood());
    EXPECT_LT(s_allocated, 1000000U);
}
