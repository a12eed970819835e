// What finding out why a signature does not fit costs at most: a stranger chooses the signature and the body.
#include "../Diagnosing.h"
#include "support/Interpose.h"

#include <iconv.h>

namespace {

std::size_t s_digested = 0;
int s_verifications = 0;
int s_converters = 0;

} // namespace

extern "C" int EVP_DigestUpdate(EVP_MD_CTX* context, const void* octets, std::size_t count) {
    s_digested += count;
    return norvtest::next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, octets, count);
}
extern "C" iconv_t iconv_open(const char* to, const char* from) {
    ++s_converters;
    return norvtest::next<&iconv_open>("iconv_open")(to, from);
}
extern "C" int EVP_PKEY_verify(EVP_PKEY_CTX* context, const unsigned char* signature, std::size_t signatureLength,
                               const unsigned char* digest, std::size_t length) {
    ++s_verifications;
    return norvtest::next<&EVP_PKEY_verify>("EVP_PKEY_verify")(context, signature, signatureLength, digest, length);
}

namespace {

using namespace diagnosing;

/// A text of that many bytes that repeats these lines.
std::string textOf(std::size_t length, const std::string& lines) {
    std::string text = "Content-Type: multipart/mixed; boundary=b; charset=utf-8\r\n\r\n--b\r\n";
    while (text.size() < length) {
        text += lines;
    }
    return text;
}
const std::string everything = "--b\r\nContent-Type: text/plain; charset=utf-8\r\n"
                               "Content-Transfer-Encoding: quoted-printable\r\n\r\n"
                               ">From here =3d =C3=BC\n..\r.\r\n-- \r\n--\r\n"
                               "--b\r\nContent-Type: text/plain; charset=iso-8859-1\r\n"
                               "Content-Transfer-Encoding: base64\r\n\r\nQUJD\r\r\n"
                               "--b\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: 8bit\r\n\r\n\xC3\xBC\r\n";

TEST(DiagnosisWork, WhatIsDigestedStaysWithinTheBudget) {
    const std::string arrived = textOf(50000, everything);
    const Buffer signature = bufferOf(signatureOver("another text"));
    SMime::DiagnosisOptions options;
    s_digested = 0;
    const SMime::Diagnosis all = SMime::explain(signature, sourceOf(arrived), options);
    EXPECT_TRUE(all.explanations.empty());
    EXPECT_EQ("", all.notLooked);
    EXPECT_GT(all.tries, 100U);
    EXPECT_EQ(1 + (all.tries - 4 + 99) / 100, all.passes)
        << "four changes of line ends at once, then a hundred each time";
    // Undone changes make a body longer, by a third where they do most.
    EXPECT_LT(s_digested, all.tries * arrived.size() * 14 / 10);
    EXPECT_LE(all.tries, 400U);

    options.budget.digested = 20 * arrived.size();
    s_digested = 0;
    const SMime::Diagnosis some = SMime::explain(signature, sourceOf(arrived), options);
    EXPECT_NE("", some.notLooked);
    EXPECT_LT(some.tries, 25U);
    EXPECT_LT(s_digested, 25 * arrived.size() * 14 / 10);
}

TEST(DiagnosisWork, OnlyAShortBodyIsReadMoreThanTwice) {
    const Buffer signature = bufferOf(signatureOver("another text"));
    const auto passes = [&](std::size_t length) {
        std::string arrived = textOf(60000, everything);
        arrived.append(length - arrived.size(), 'x');
        SMime::DiagnosisOptions options;
        options.budget.digested = 120 * arrived.size();
        const SMime::Diagnosis diagnosis = SMime::explain(signature, sourceOf(arrived), options);
        EXPECT_GT(diagnosis.tries, 104U);
        return diagnosis.passes;
    };
    EXPECT_EQ(3U, passes(65536));
    EXPECT_EQ(2U, passes(65537));
}

TEST(DiagnosisWork, ABodyIsNotReadBeyondTheBudget) {
    SMime::DiagnosisOptions options;
    options.budget.body = 100000;
    s_digested = 0;
    const SMime::Diagnosis diagnosis =
        SMime::explain(bufferOf(signatureOver("another text")), sourceOf(textOf(2000000, everything)), options);
    EXPECT_NE("", diagnosis.notLooked);
    EXPECT_LT(s_digested, 20 * options.budget.body);
}

TEST(DiagnosisWork, ASignatureThatNobodyMadeIsVerifiedOnce) {
    Bytes signature = signatureOver("another text");
    signature.back() ^= 1U; // the last octet of the signature
    s_verifications = 0;
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, textOf(10000, everything));
    EXPECT_TRUE(diagnosis.explanations.empty());
    EXPECT_EQ(1U, diagnosis.passes);
    // With the certificate in the message, and once more as one that may be meant.
    EXPECT_LE(s_verifications, 2);
}

TEST(DiagnosisWork, VerificationsStayWithinTheBudget) {
    // Each question about a signature without attributes is a verification.
    const Bytes signature = signatureOver("another text", identities().rsa, "sha256", CMS_NOATTR);
    s_verifications = 0;
    const SMime::Diagnosis diagnosis = diagnosisOf(signature, textOf(20000, everything));
    EXPECT_LE(diagnosis.verifications, 256U);
    EXPECT_LE(s_verifications, 258);
    EXPECT_NE("", diagnosis.notLooked);

    // Many signers, and many certificates that may be meant.
    const Bytes many = withSigners(signatureOver("another text", identities().rsa, "sha256", CMS_NOCERTS), 100);
    SMime::DiagnosisOptions options;
    for (int serial = 1; serial <= 60; ++serial) {
        options.certificates.push_back(certificateOf(norvauthority::issue({.subject = {{"CN", "like alice"}},
                                                                           .key = identities().otherRsa.key,
                                                                           .issuer = &identities().authority,
                                                                           .serial = std::to_string(serial + 10)})));
    }
    s_verifications = 0;
    const SMime::Diagnosis diagnosed = diagnosisOf(many, "one more text", options);
    EXPECT_LE(diagnosed.verifications, 256U);
    EXPECT_LE(s_verifications, 256);
    EXPECT_NE("", diagnosed.notLooked);
}

TEST(DiagnosisWork, OfPartsWithoutNumberAThousandAreLookedAt) {
    s_converters = 0;
    const std::string arrived = textOf(150000, "--b\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n\xC3\xBC\r\n");
    ASSERT_GT(arrived.size() / 52, 2000U);
    const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver("another text"), arrived);
    EXPECT_TRUE(diagnosis.explanations.empty());
    // Four character sets, with two kinds of line ends.
    EXPECT_GT(s_converters, 0);
    EXPECT_LE(s_converters, 8 * 1000);
}

TEST(DiagnosisWork, StrangeBodiesHaveNoExplanation) {
    const std::string header = "Content-Type: text/plain" + std::string(60000, ';');
    const std::string quoted = "Content-Transfer-Encoding: quoted-printable\r\n\r\n";
    for (const std::string& arrived :
         {header + "\r\n\r\nx", header + header + "\r\n\r\nx", std::string(200000, ' '),
          std::string(100000, '>') + "From ", std::string(30000, '\r'), "a: b\r\n" + std::string(100000, '-'),
          quoted + std::string(200000, ' ') + std::string(30000, '='), quoted + std::string(8192, 'x') + "=3",
          quoted + "=", std::string("\r\r"), std::string("Content-Type: multipart/mixed; boundary=\"b"),
          std::string(1, '\0')}) {
        const SMime::Diagnosis diagnosis = diagnosisOf(signatureOver("another text"), arrived);
        EXPECT_TRUE(diagnosis.explanations.empty());
        EXPECT_EQ("", diagnosis.notLooked);
    }
}

} // namespace
