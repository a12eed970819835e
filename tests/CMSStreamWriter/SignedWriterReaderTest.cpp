// What the signing writer writes, read by the library's own reader: both ends of one road.
#include "SignedWriting.h"

#include <norvcrypto/CMSSignedReader.h>

#include <functional>

using namespace signedtest;

namespace {

/// Reads a structure, with the body where it is detached; the content that it gives out.
struct Read {
    Read(const Bytes& structure, const Bytes* detached) : in(bufferOf(structure)), reader(in) {
        if (detached != nullptr) {
            Norvane::MediaOut digest = reader.digest();
            writeInPieces(digest, *detached, 1000);
        } else {
            reader.write(content);
        }
    }
    Norvane::MemoryMediaIn in;
    CMS::SignedReader reader;
    Norvane::MemoryMediaOut content;
};

void expectGood(const Options& options, const Bytes& body) {
    const bool detached = options.content == Content::detached;
    Read read(written(options, body, 3000), detached ? &body : nullptr);
    EXPECT_EQ(read.reader.isDetached(), detached);
    if (!detached) {
        EXPECT_EQ(cmstest::bytesOf(read.content.content()), body);
    }
    ASSERT_EQ(read.reader.signers().size(), options.signers.size());
    for (const auto& signer : read.reader.signers()) {
        const CMS::SignatureResult result = read.reader.verdict(signer);
        EXPECT_EQ(result.verdict, CMS::SignatureVerdict::good) << CMS::textOf(result.reason);
        EXPECT_EQ(signer.signingCertificates().size(), 1U);
        EXPECT_EQ(signer.capabilities().size(), 5U);
        EXPECT_EQ(signer.signingTime(), std::optional<std::time_t>(1700000000));
    }
}

} // namespace

TEST(SignedRoundTrip, EveryKindOfKeyInEveryForm) {
    const Bytes body = bodyOf(10000);
    std::vector<Signer> signers;
    for (const Identity* identity : {&identities().rsa, &identities().ec, &p384(), &p521(), &ed25519(), &ed448()}) {
        signers.emplace_back(pairOf(*identity));
    }
    signers.emplace_back(pairOf(identities().otherRsa));
    signers.back().rsaScheme = SignedWriter::RsaScheme::pss;
    for (std::size_t index = 0; index < signers.size(); ++index) {
        signers[index].signedAt = 1700000000;
        signers[index].namedBy =
            index % 2 == 0 ? CMS::NamedBy::issuerAndSerialNumber : CMS::NamedBy::subjectKeyIdentifier;
    }
    std::vector<Options> forms(4, optionsFor(signers)); // all of them at once
    for (const Signer& signer : signers) {
        forms.insert(forms.end(), 4, optionsFor({signer}));
    }
    for (std::size_t index = 0; index < forms.size(); ++index) {
        forms[index].encoding = index % 4 == 0 ? Encoding::ber : Encoding::der;
        if (index % 4 == 2) {
            forms[index].length = body.size();
        }
        forms[index].content = index % 4 == 3 ? Content::detached : Content::attached;
        expectGood(forms[index], body);
    }
}

TEST(SignedRoundTrip, AnotherBodyIsRefused) {
    for (const Identity* identity : {&identities().rsa, &p384(), &ed25519()}) {
        Options options = optionsFor(*identity);
        options.content = Content::detached;
        const Bytes other = bodyOf(99);
        const Read read(written(options, bodyOf(100)), &other);
        const CMS::SignatureResult result = read.reader.verdict(read.reader.signers().front());
        EXPECT_EQ(result.verdict, CMS::SignatureVerdict::refused) << CMS::textOf(result.reason);
    }
}

TEST(SignedRoundTrip, ContentTypeCertificatesAndListsArriveAsTheyWere) {
    Options options = optionsFor(identities().rsa);
    options.contentType = "1.3.6.1.4.1.55555.7";
    options.certificates = {certificateOf(identities().authority)};
    options.revocationLists = {NVX509::CertificateRevocationListFactory().readDER(
        bufferOf(norvauthority::issueList({.issuer = &identities().authority, .numbered = 3}).der))};
    const Read read(written(options, bodyOf(9)), nullptr);
    EXPECT_EQ(read.reader.contentType(), "1.3.6.1.4.1.55555.7");
    EXPECT_EQ(read.reader.certificates().size(), 2U);
    EXPECT_EQ(read.reader.revocationLists().size(), 1U);
}
