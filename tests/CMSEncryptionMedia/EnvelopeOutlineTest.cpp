// What sound messages of newer senders need, told from damaged ones.
#include "support/Decrypting.h"
#include "support/HostileDer.h"
#include "support/MadeByOpenssl.h"

#include <norvcrypto/CMSEnvelopeOutline.h>

using namespace cmstest;
using Outline = CMS::EnvelopeOutline;
using Names = std::list<std::string>;

namespace {

void expectUnreadable(const Bytes& message, const Names& unsupported) {
    const Outline outline(bufferOf(message));
    EXPECT_EQ(outline.kind(), Outline::EnvelopedData);
    EXPECT_FALSE(outline.isReadable());
    EXPECT_EQ(outline.unsupported(), unsupported);
    EXPECT_EQ(outline.readable(bufferOf(message)).length(), 0U);
    PiecewiseIn in(message);
    const RecordedLog log;
    EXPECT_THROW(CMS::DecrypterMediaIn(in, storeOfKeys({})), Norvane::Exception) << "or there is no need to look twice";
}

/// What DecrypterMediaIn reads of it opens for alice.
void expectOpens(const Bytes& message, const Bytes& body, const Names& unsupported = {}) {
    const Outline outline(bufferOf(message));
    EXPECT_EQ(outline.kind(), Outline::EnvelopedData);
    EXPECT_EQ(outline.unsupported(), unsupported);
    ASSERT_TRUE(outline.isReadable());
    EXPECT_TRUE(openedBy(bytesOf(outline.readable(bufferOf(message))), storeOfKeys({&alice()})).body == body);
}

Bytes context(int number, const Bytes& content) {
    return der::element(static_cast<unsigned char>(0xA0 + number), content);
}

/// Alice's EnvelopedData of version 2 with these elements around its recipients and behind its content.
Bytes versionTwo(const Bytes& before, const std::vector<Bytes>& recipients, const Bytes& behind) {
    Bytes all;
    for (const Bytes& one : recipients) {
        der::append(all, one);
    }
    Bytes parts = der::integer("2");
    der::append(parts, before);
    der::append(parts, der::element(0x31, all));
    der::append(parts,
                der::sequence({der::oid("1.2.840.113549.1.7.1"),
                               der::sequence({der::oid("AES-128-CBC"), der::octetString(initializationVector())}),
                               contentElement(encryptedContent(bodyOf(1000)))}));
    der::append(parts, behind);
    return der::sequence({der::oid("1.2.840.113549.1.7.3"), context(0, der::element(0x30, parts))});
}

} // namespace

TEST(EnvelopeOutline, WhatPkcs7KnowsIsReadable) {
    for (const unsigned int flags : {0U, static_cast<unsigned int>(CMS_STREAM)}) {
        expectOpens(encryptedByOpenssl({&alice(), &bob()}, bodyOf(20000), EVP_aes_256_cbc(), flags), bodyOf(20000));
    }
}

TEST(EnvelopeOutline, OtherKindsOfRecipientsAreNamed) {
    expectUnreadable(madeByOpenssl(EVP_aes_128_cbc(), toCertificate(identities().ec)),
                     {"recipients by key agreement (dhSinglePass-stdDH-sha1kdf-scheme (1.3.133.16.840.63.0.2))"});
    expectUnreadable(madeByOpenssl(EVP_aes_128_cbc(), addSecretKey),
                     {"recipients by key-encryption key (id-aes256-wrap (2.16.840.1.101.3.4.1.45))"});
    expectUnreadable(madeByOpenssl(EVP_aes_128_cbc(), addPassword), {"recipients by password"});
    expectUnreadable(madeByOpenssl(EVP_aes_128_cbc(), toCertificate(alice(), CMS_USE_KEYID)),
                     {"recipients by subject key identifier"});
}

TEST(EnvelopeOutline, KeyAgreementWithKeyingMaterial) {
    const Bytes octets = der::octetString({1});
    const Bytes algorithm = der::sequence({der::oid("1.3.132.1.11.1")});
    for (const Bytes& material : {Bytes(), context(1, octets)}) {
        const Bytes agreement =
            context(1, der::concat({der::integer("3"), context(0, octets), material, algorithm, der::sequence({})}));
        expectOpens(versionTwo({}, {agreement, recipient(alice())}, {}), bodyOf(1000),
                    {"recipients by key agreement (dhSinglePass-stdDH-sha256kdf-scheme (1.3.132.1.11.1))"});
    }
}

TEST(EnvelopeOutline, RecipientsThatPkcs7KnowsAreReadableAmongOthers) {
    const auto all = [](CMS_ContentInfo* structure) {
        addPassword(structure);
        toCertificate(identities().ec)(structure);
        toCertificate(alice())(structure);
        toCertificate(bob(), CMS_USE_KEYID)(structure);
        addSecretKey(structure);
    };
    for (const unsigned int flags : {0U, static_cast<unsigned int>(CMS_STREAM)}) {
        const Bytes message = madeByOpenssl(EVP_aes_128_cbc(), all, flags);
        const Outline outline(bufferOf(message));
        EXPECT_EQ(outline.unsupported().size(), 4U);
        expectOpens(message, bodyOf(1000), outline.unsupported());
    }
}

TEST(EnvelopeOutline, AuthenticatedOnesAreNamedByTheirCipher) {
    const Bytes message = encryptedByOpenssl({&alice()}, bodyOf(100), EVP_aes_256_gcm());
    const Outline outline(bufferOf(message));
    EXPECT_EQ(outline.kind(), Outline::AuthEnvelopedData);
    EXPECT_FALSE(outline.isReadable());
    EXPECT_EQ(outline.unsupported(), Names{"AuthEnvelopedData (id-aes256-GCM (2.16.840.1.101.3.4.1.46))"});
}

TEST(EnvelopeOutline, OriginatorInfoAndUnprotectedAttributesAreLeftOut) {
    const Bytes attribute = der::sequence({der::oid("1.2.3.4"), der::element(0x31, der::octetString({1}))});
    const Bytes originator = context(0, context(0, Bytes()));
    const Bytes certificate = context(0, context(0, alice().certificate.der));
    for (const Bytes& before : {Bytes(), originator, certificate}) {
        for (const Bytes& behind : {Bytes(), context(1, attribute)}) {
            expectOpens(versionTwo(before, {recipient(alice())}, behind), bodyOf(1000));
        }
    }
}

TEST(EnvelopeOutline, RecipientsOfOtherTypesAreNamedAndTheirNumberIsBounded) {
    std::vector<Bytes> recipients;
    Names expected;
    for (int at = 0; at < 40; ++at) {
        const std::string type = "1.2.3." + std::to_string(at);
        recipients.push_back(context(4, [&] {
            Bytes content = der::oid(type);
            der::append(content, der::null());
            return content;
        }()));
        if (at < 16) {
            expected.push_back("recipients of the type " + type);
        }
    }
    expected.emplace_back("others");
    recipients.push_back(recipient(alice()));
    expectOpens(versionTwo({}, recipients, {}), bodyOf(1000), expected);
}

TEST(EnvelopeOutline, OtherTypesAreNoDamage) {
    EXPECT_EQ(Outline(bufferOf(signedByOpenssl(alice(), bodyOf(100), "SHA256", 0))).kind(), Outline::OtherType);
    const Bytes message = der::sequence({der::oid("1.2.3.4"), context(0, der::octetString({65}))});
    const Outline outline(bufferOf(message));
    EXPECT_EQ(outline.kind(), Outline::OtherType);
    EXPECT_FALSE(outline.isReadable());
    EXPECT_TRUE(outline.unsupported().empty());
}

TEST(EnvelopeOutline, DamageIsDamage) {
    for (const std::string& text :
         {std::string(), std::string("0"), std::string("no structure"), std::string("0\x80")}) {
        EXPECT_EQ(Outline(bufferOf(norvauthority::bytes(text))).kind(), Outline::Damaged) << text;
    }
    EXPECT_EQ(Outline(Buffer()).kind(), Outline::Damaged);
    const auto all = [](CMS_ContentInfo* structure) {
        addPassword(structure);
        toCertificate(identities().ec)(structure);
        toCertificate(alice())(structure);
        addSecretKey(structure);
    };
    for (const unsigned int flags : {0U, static_cast<unsigned int>(CMS_STREAM)}) {
        const Bytes message = madeByOpenssl(EVP_aes_128_cbc(), all, flags);
        ASSERT_EQ(Outline(bufferOf(message)).kind(), Outline::EnvelopedData);
        for (const Bytes& prefix : norvtest::properPrefixes(message)) {
            const Outline outline(bufferOf(prefix));
            EXPECT_EQ(outline.kind(), Outline::Damaged) << prefix.size();
            EXPECT_TRUE(outline.unsupported().empty());
        }
        for (const Bytes& announced : norvtest::oversized(message)) {
            const Outline outline(bufferOf(announced));
            static_cast<void>(outline.readable(bufferOf(announced)));
        }
        for (std::size_t at = 0; at < message.size(); ++at) {
            Bytes altered = message;
            altered[at] ^= static_cast<unsigned char>(1U << (at % 8));
            const Outline outline(bufferOf(altered));
            static_cast<void>(outline.readable(bufferOf(altered)));
        }
    }
    // A recipient that is none spoils the message, and what was found before it is not told.
    const Bytes octets = der::octetString({1});
    const Bytes algorithm = der::sequence({der::oid("1.2.3.4")});
    const Bytes version = der::integer("3");
    const Bytes password = context(3, version);
    for (const Bytes& odd :
         {octets, context(1, der::concat({version, context(0, octets)})), context(1, der::concat({version, algorithm})),
          context(2, der::concat({version, algorithm})), context(2, version), context(4, octets),
          der::sequence({version, octets}), Bytes{0x30, 0x05}}) {
        const Outline outline(bufferOf(versionTwo({}, {password, odd}, {})));
        EXPECT_EQ(outline.kind(), Outline::Damaged) << norvauthority::toHex(odd);
        EXPECT_TRUE(outline.unsupported().empty());
    }
    EXPECT_EQ(Outline(bufferOf(versionTwo({}, {recipient(alice()), der::octetString({1})}, {}))).kind(),
              Outline::Damaged);
    EXPECT_EQ(Outline(bufferOf(versionTwo({}, {context(3, {})}, {}))).kind(), Outline::Damaged);
    EXPECT_EQ(ERR_peek_error(), 0UL);
}

TEST(EnvelopeOutline, OthersBytesGiveNothingReadable) {
    const Bytes message = encryptedByOpenssl({&alice()}, bodyOf(100), EVP_aes_256_cbc());
    const Outline outline(bufferOf(message));
    EXPECT_EQ(outline.readable(bufferOf(Bytes(100, 1))).length(), 0U);
    EXPECT_EQ(outline.readable(Buffer()).length(), 0U);
}

// However deep elements are nested, no stack grows with them.
TEST(EnvelopeOutline, DepthCostsNoStack) {
    Bytes deep;
    for (int at = 0; at < 1000000; ++at) {
        der::append(deep, {0x30, 0x80});
    }
    EXPECT_EQ(Outline(bufferOf(deep)).kind(), Outline::Damaged);
    deep.insert(deep.end(), 2000000, 0);
    EXPECT_EQ(Outline(bufferOf(deep)).kind(), Outline::Damaged);
}
