// Which cipher everybody reads (RFC 8551, 2.5.2 and 2.7.1).
#include <norvcrypto/CMSEnvelopeWriter.h>

#include <gtest/gtest.h>

using namespace Norvane::Crypto::CMS;

namespace {

using List = std::vector<std::string>;
const std::string aes128 = "2.16.840.1.101.3.4.1.2";
const std::string aes192 = "2.16.840.1.101.3.4.1.22";
const std::string aes256 = "2.16.840.1.101.3.4.1.42";
const std::string gcm128 = "2.16.840.1.101.3.4.1.6";
const std::string gcm192 = "2.16.840.1.101.3.4.1.26";
const std::string gcm256 = "2.16.840.1.101.3.4.1.46";
const std::string tripleDes = "1.2.840.113549.3.7";
const std::string rc2 = "1.2.840.113549.3.2";
const std::string chaCha20 = "1.2.840.113549.1.9.16.3.18";
const std::string rsaWithSha256 = "1.2.840.113549.1.1.11";

} // namespace

TEST(EnvelopeCapabilities, TheStrongestOfOneList) {
    EXPECT_EQ(strongestCommonCipher({{tripleDes, aes128, aes256, aes192}}), ContentCipher::aes256Cbc);
    EXPECT_EQ(strongestCommonCipher({{aes256, gcm128}}), ContentCipher::aes128Gcm); // authenticated before longer
    EXPECT_EQ(strongestCommonCipher({{gcm128, gcm256, gcm192}}), ContentCipher::aes256Gcm);
    EXPECT_EQ(strongestCommonCipher({{gcm192, aes192}}), ContentCipher::aes192Gcm);
    EXPECT_EQ(strongestCommonCipher({{aes192, aes128}}), ContentCipher::aes192Cbc);
    EXPECT_EQ(strongestCommonCipher({{rsaWithSha256, aes128, rc2}}), ContentCipher::aes128Cbc);
}

TEST(EnvelopeCapabilities, TheStrongestThatAllHave) {
    EXPECT_EQ(strongestCommonCipher({{gcm256, aes256, aes128}, {aes128, aes256}}), ContentCipher::aes256Cbc);
    EXPECT_EQ(strongestCommonCipher({{gcm256, aes256, aes128}, {gcm128, aes128}}), ContentCipher::aes128Cbc);
    EXPECT_EQ(strongestCommonCipher({{aes256}, {aes128}}), std::nullopt);
    EXPECT_EQ(strongestCommonCipher({{aes256, aes128}, {rc2}}), std::nullopt);
    EXPECT_EQ(strongestCommonCipher({{chaCha20}}), std::nullopt);
}

TEST(EnvelopeCapabilities, TripleDesOnlyWhenItIsAllowed) {
    EXPECT_EQ(strongestCommonCipher({{tripleDes, rc2}}), std::nullopt);
    EXPECT_EQ(strongestCommonCipher({{tripleDes, rc2}}, ContentCipher::aes128Cbc, true), ContentCipher::tripleDesCbc);
    EXPECT_EQ(strongestCommonCipher({{tripleDes, aes128}}, ContentCipher::aes128Cbc, true), ContentCipher::aes128Cbc);
}

TEST(EnvelopeCapabilities, WhatIsUnknownReadsTheChosenOneAndAes128) {
    const auto gcm = ContentCipher::aes256Gcm;
    EXPECT_EQ(strongestCommonCipher({{}}), ContentCipher::aes128Cbc);
    EXPECT_EQ(strongestCommonCipher({{}}, gcm), gcm);
    EXPECT_EQ(strongestCommonCipher({{rsaWithSha256}}), ContentCipher::aes128Cbc); // tells nothing of ciphers
    EXPECT_EQ(strongestCommonCipher({{}, {aes256, aes128}}), ContentCipher::aes128Cbc);
    EXPECT_EQ(strongestCommonCipher({{}, {aes256, aes128}}, gcm), ContentCipher::aes128Cbc);
    EXPECT_EQ(strongestCommonCipher({{}, {gcm256, aes128}}, gcm), gcm);
    EXPECT_EQ(strongestCommonCipher({{}, {aes256}}), std::nullopt);
    EXPECT_EQ(strongestCommonCipher({}), ContentCipher::aes128Cbc);
    EXPECT_EQ(strongestCommonCipher({}, gcm), gcm);
}
