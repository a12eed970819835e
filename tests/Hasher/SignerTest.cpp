#include "support/Judge.h"
#include "support/Keys.h"
#include "support/Slots.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <authority/Authority.h>
#include <norvcrypto/Hasher.h>

#include <openssl/err.h>
#include <openssl/evp.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>

namespace {

using Norvane::Buffer;
using Norvane::Crypto::Hasher;
using Norvane::Crypto::RefHasher;
using Norvane::Crypto::RefKey;
using Norvane::Crypto::RefVerifier;
using Norvane::Crypto::SignerRef;
using Norvane::Crypto::Verifier;
using Norvane::Crypto::VerifierMediaOut;
using norvtest::bufferOf;
using norvtest::privateKeyOf;
using norvtest::publicKeyOf;
using norvtest::textOf;

static_assert(std::is_base_of_v<RefHasher, SignerRef> && std::is_base_of_v<RefHasher, RefVerifier>);
static_assert(!std::is_default_constructible_v<SignerRef>);

const norvauthority::Key& rsa() {
    static const auto key = norvauthority::Key::rsa();
    return key;
}

Buffer signatureOf(const norvauthority::Key& key, const std::string& body, Hasher::Type type = Hasher::SHA256) {
    SignerRef signer(type);
    signer->signingKey(privateKeyOf(key));
    signer->update(body);
    return signer->sign();
}

bool verifies(const norvauthority::Key& key, const std::string& body, const Buffer& signature,
              Hasher::Type type = Hasher::SHA256) {
    RefVerifier verifier(type);
    verifier->verificationKey(publicKeyOf(key));
    verifier->update(body);
    return verifier->isValid(signature);
}

/// The signature without the zeroes behind its DER structure.
Buffer cut(const Buffer& signature) {
    return Buffer(signature.data(), signature.at(1) + 2U, false);
}

class Signatures : public testing::Test {
protected:
    Signatures() {
        Norvane::Crypto::initialize();
        ERR_clear_error();
    }
    ~Signatures() override { EXPECT_TRUE(norvtest::errorQueueIsEmpty()); }
};

TEST_F(Signatures, OfRsaVerifyWithTheMatchingPublicKey) {
    const Buffer signature = signatureOf(rsa(), "the body");
    EXPECT_TRUE(verifies(rsa(), "the body", signature));
}

TEST_F(Signatures, HaveExactlyTheKeysSize) {
    EXPECT_EQ(signatureOf(rsa(), "the body").length(), 256U);
    EXPECT_EQ(signatureOf(norvauthority::Key::rsa(1024), "the body").length(), 128U);
}

TEST_F(Signatures, WorkWithEveryUsualDigest) {
    for (const auto type :
         {Hasher::MD5, Hasher::SHA1, Hasher::SHA224, Hasher::SHA256, Hasher::SHA384, Hasher::SHA512}) {
        EXPECT_TRUE(verifies(rsa(), "the body", signatureOf(rsa(), "the body", type), type)) << type;
    }
}

TEST_F(Signatures, OneChangedByteGivesFalseWhereverItIs) {
    const Buffer signature = signatureOf(rsa(), "the body");
    for (unsigned int i = 0; i < signature.length(); i += 17) {
        Buffer changed(signature);
        changed.data()[i] ^= 1U;
        EXPECT_FALSE(verifies(rsa(), "the body", changed)) << i;
        EXPECT_TRUE(norvtest::errorQueueIsEmpty()) << "a wrong signature is no error";
    }
}

TEST_F(Signatures, AChangedBodyAnotherKeyOrAnotherDigestGivesFalse) {
    const Buffer signature = signatureOf(rsa(), "the body");
    EXPECT_FALSE(verifies(rsa(), "The body", signature));
    EXPECT_FALSE(verifies(norvauthority::Key::rsa(), "the body", signature));
    EXPECT_FALSE(verifies(rsa(), "the body", signature, Hasher::SHA512));
}

TEST_F(Signatures, OfAWrongLengthGiveFalse) {
    const Buffer signature = signatureOf(rsa(), "the body");
    EXPECT_FALSE(verifies(rsa(), "the body", Buffer()));
    EXPECT_FALSE(verifies(rsa(), "the body", Buffer(signature.data(), 255, false)));
    EXPECT_FALSE(verifies(rsa(), "the body", bufferOf(textOf(signature) + "x")));
}

TEST_F(Signatures, OfEllipticCurvesArePaddedWithZeroesToTheKeysSize) {
    const auto key = norvauthority::Key::ec();
    bool shorter = false;
    for (int i = 0; i < 40; ++i) { // the length of the structure varies from signature to signature
        const Buffer signature = signatureOf(key, "the body");
        ASSERT_EQ(signature.length(), static_cast<unsigned int>(EVP_PKEY_get_size(key.get())));
        const Buffer structure = cut(signature);
        EXPECT_TRUE(verifies(key, "the body", structure));
        shorter = shorter || structure.length() < signature.length();
        EXPECT_TRUE(std::all_of(signature.data() + structure.length(), signature.data() + signature.length(),
                                [](unsigned char byte) { return byte == 0; }));
    }
    EXPECT_TRUE(shorter) << "forty signatures and all of the greatest length";
}

TEST_F(Signatures, OfDsaVerify) {
    const auto key = norvauthority::Key::dsa();
    const Buffer signature = signatureOf(key, "the body", Hasher::SHA1);
    EXPECT_EQ(signature.length(), static_cast<unsigned int>(EVP_PKEY_get_size(key.get())));
    EXPECT_TRUE(verifies(key, "the body", cut(signature), Hasher::SHA1));
    EXPECT_FALSE(verifies(key, "another body", cut(signature), Hasher::SHA1));
}

TEST_F(Signatures, TheContextStaysUsableAfterSigning) {
    SignerRef signer(Hasher::SHA256);
    signer->signingKey(privateKeyOf(rsa()));
    signer->update(std::string("one "));
    EXPECT_TRUE(verifies(rsa(), "one ", signer->sign()));
    EXPECT_TRUE(verifies(rsa(), "one ", signer->sign()));
    signer->update(std::string("two"));
    EXPECT_TRUE(verifies(rsa(), "one two", signer->sign()));
}

TEST_F(Signatures, MayBeAskedAboutAgain) {
    const Buffer good = signatureOf(rsa(), "one ");
    const Buffer later = signatureOf(rsa(), "one two");
    RefVerifier verifier(Hasher::SHA256);
    verifier->verificationKey(publicKeyOf(rsa()));
    verifier->update(std::string("one "));
    EXPECT_FALSE(verifier->isValid(later));
    EXPECT_TRUE(verifier->isValid(good));
    EXPECT_TRUE(verifier->isValid(good));
    verifier->update(std::string("two"));
    EXPECT_TRUE(verifier->isValid(later));
}

TEST_F(Signatures, APrivateKeyVerifiesToo) {
    RefVerifier verifier(Hasher::SHA256);
    verifier->verificationKey(privateKeyOf(rsa()));
    verifier->update(std::string("the body"));
    EXPECT_TRUE(verifier->isValid(signatureOf(rsa(), "the body")));
}

TEST_F(Signatures, FinalizeConsumesTheVerifier) {
    RefVerifier verifier(Hasher::SHA256);
    verifier->verificationKey(publicKeyOf(rsa()));
    verifier->finalize();
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(verifier->isValid(Buffer())); });
    norvtest::expectFailure(thrown, "virtual bool Norvane::Crypto::Verifier::isValid(const Norvane::Buffer&)", 4,
                            "Hasher");
    EXPECT_EQ(norvtest::detailOf(thrown), "Finalized already called. Do not call finalize before isValid");
}

TEST_F(Signatures, TheFinalizedCheckComesBeforeTheKey) {
    RefVerifier verifier(Hasher::SHA256);
    verifier->finalize();
    EXPECT_EQ(norvtest::thrownBy([&] { static_cast<void>(verifier->isValid(Buffer())); }).code(), 4);
}

TEST_F(Signatures, WithoutAKeyThrowAsANullHandleDoes) {
    SignerRef signer(Hasher::SHA256);
    norvtest::expectFailure(norvtest::thrownBy([&] { static_cast<void>(signer->sign()); }), "operator->", 1,
                            "include2/NorvRefcounted");
    RefVerifier verifier(Hasher::SHA256);
    norvtest::expectFailure(norvtest::thrownBy([&] { static_cast<void>(verifier->isValid(Buffer())); }), "operator->",
                            1, "include2/NorvRefcounted");
}

TEST_F(Signatures, WithAnEmptyKeyCannotBeMade) {
    SignerRef signer(Hasher::SHA256);
    signer->signingKey(RefKey(Norvane::Crypto::Key::PRIVATE_KEY));
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(signer->sign()); });
    norvtest::expectFailure(thrown, "Crypto::Signer::sign", 4, "Hasher");
    EXPECT_EQ(norvtest::detailOf(thrown),
              "0x30c0102: digital envelope routines / EVP_SignFinal / passed a null parameter; ");
}

TEST_F(Signatures, WithAnEmptyKeyCannotBeChecked) {
    RefVerifier verifier(Hasher::SHA256);
    verifier->verificationKey(RefKey(Norvane::Crypto::Key::PUBLIC_KEY));
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(verifier->isValid(bufferOf("signature"))); });
    norvtest::expectFailure(thrown, "Crypto::Verififer::isValid", 4, "Hasher");
    EXPECT_EQ(norvtest::detailOf(thrown),
              "Error during signature verification:  "
              "0x30c0102: digital envelope routines / EVP_VerifyFinal / passed a null parameter; ");
}

TEST_F(Signatures, AKeyThatCannotSignWithADigestThrowsWithOpenSslsErrors) {
    const auto thrown =
        norvtest::thrownBy([] { static_cast<void>(signatureOf(norvauthority::Key::ed25519(), "the body")); });
    norvtest::expectFailure(thrown, "Crypto::Signer::sign", 4, "Hasher");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("0x")) << norvtest::detailOf(thrown);
}

TEST_F(Signatures, APublicKeyCannotSign) {
    SignerRef signer(Hasher::SHA256);
    signer->signingKey(publicKeyOf(rsa()));
    signer->update(std::string("the body"));
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(signer->sign()); });
    norvtest::expectFailure(thrown, "Crypto::Signer::sign", 4, "Hasher");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("0x")) << norvtest::detailOf(thrown);
}

TEST_F(Signatures, ARsaKeyTooSmallForTheDigestCannotSign) {
    // 512 bits hold no padded SHA-512.
    const auto thrown = norvtest::thrownBy(
        [] { static_cast<void>(signatureOf(norvauthority::Key::rsa(512), "the body", Hasher::SHA512)); });
    norvtest::expectFailure(thrown, "Crypto::Signer::sign", 4, "Hasher");
}

TEST_F(Signatures, AMalformedStructureThrowsAndEmptiesTheQueue) {
    const auto thrown = norvtest::thrownBy(
        [] { static_cast<void>(verifies(norvauthority::Key::ec(), "the body", bufferOf("no DER structure"))); });
    norvtest::expectFailure(thrown, "Crypto::Verififer::isValid", 4, "Hasher");
    EXPECT_TRUE(norvtest::detailOf(thrown).starts_with("Error during signature verification:  "));
}

TEST_F(Signatures, AKeyIsSharedNotCopied) {
    RefKey key = privateKeyOf(rsa());
    EXPECT_EQ(key->referenceCount(), 1);
    SignerRef signer(Hasher::SHA256);
    signer->signingKey(key);
    EXPECT_EQ(key->referenceCount(), 2);
    signer->signingKey(RefKey());
    EXPECT_EQ(key->referenceCount(), 1);
}

TEST_F(Signatures, HandlesAreHasherHandlesToo) {
    SignerRef signer(Hasher::SHA256);
    signer->signingKey(privateKeyOf(rsa()));
    RefHasher& fed = signer;
    fed << std::string("the ") << std::string("body");
    EXPECT_TRUE(verifies(rsa(), "the body", signer->sign()));
    const SignerRef copy(signer);
    EXPECT_EQ(copy.operator->(), signer.operator->());
}

TEST_F(Signatures, ANullVerifierHandleThrows) {
    const RefVerifier none;
    EXPECT_TRUE(none.isNull());
    norvtest::expectFailure(norvtest::thrownBy([&] { static_cast<void>(none->isValid(Buffer())); }), "operator->", 1,
                            "include2/NorvRefcounted");
}

TEST_F(Signatures, ABadDigestTypeThrowsAsTheHasherDoes) {
    const auto bad = static_cast<Hasher::Type>(19);
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { const SignerRef signer(bad); })),
              "Unrecognized DigestType 0x13");
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { const RefVerifier verifier(bad); })),
              "Unrecognized DigestType 0x13");
    EXPECT_EQ(norvtest::detailOf(norvtest::thrownBy([&] { const VerifierMediaOut stream(bad); })),
              "Unrecognized DigestType 0x13");
}

TEST_F(Signatures, IsValidIsTheVerifiersLastSlot) {
    EXPECT_EQ(norvtest::slotOf(&Verifier::isValid), 7U);
}

TEST_F(Signatures, AStreamVerifiesWhatIsWritten) {
    const Buffer signature = signatureOf(rsa(), "the body");
    VerifierMediaOut stream(Hasher::SHA256);
    stream.write(bufferOf("the "));
    stream.write(reinterpret_cast<const unsigned char*>("body"), 4);
    RefVerifier verifier = stream.verifier();
    verifier->verificationKey(publicKeyOf(rsa()));
    EXPECT_TRUE(verifier->isValid(signature));
}

TEST_F(Signatures, AnEndedStreamsVerifierThrows) {
    VerifierMediaOut stream(Hasher::SHA256);
    stream.write(bufferOf("the body"));
    stream.end();
    const RefVerifier verifier = stream.verifier();
    verifier->verificationKey(publicKeyOf(rsa()));
    const auto thrown =
        norvtest::thrownBy([&] { static_cast<void>(verifier->isValid(signatureOf(rsa(), "the body"))); });
    EXPECT_EQ(norvtest::detailOf(thrown), "Finalized already called. Do not call finalize before isValid");
}

TEST_F(Signatures, TheVerifierOfAStreamWithoutABodyThrows) {
    VerifierMediaOut stream(Hasher::SHA256);
    static_cast<Norvane::MediaOut&>(stream) = Norvane::MediaOut();
    const auto thrown = norvtest::thrownBy([&] { static_cast<void>(stream.verifier()); });
    norvtest::expectFailure(
        thrown, "const Norvane::Crypto::RefVerifier& Norvane::Crypto::VerifierMediaOut::verifier() const", 1, "Hasher");
    EXPECT_TRUE(thrown.parameters().empty());
}

class WithOpenSsl : public Signatures, public testing::WithParamInterface<const char*> {
protected:
    static norvauthority::Key key() { return std::string(GetParam()) == "rsa" ? rsa() : norvauthority::Key::ec(); }
    norvtest::TemporaryFolder m_folder;
};

TEST_P(WithOpenSsl, ItAcceptsWhatWeSign) {
    const auto signing = key();
    m_folder.write("body", "the body");
    m_folder.write("key", signing.publicPem());
    const Buffer signature = signatureOf(signing, "the body");
    m_folder.write("signature", textOf(std::string(GetParam()) == "rsa" ? signature : cut(signature)));
    const auto outcome =
        norvtest::run("cd " + m_folder.path("") + " && openssl dgst -sha256 -verify key -signature signature body");
    EXPECT_EQ(outcome.output, "Verified OK\n");
    EXPECT_EQ(outcome.code, 0);
}

TEST_P(WithOpenSsl, WeAcceptWhatItSigns) {
    const auto signing = key();
    m_folder.write("body", "the body");
    m_folder.write("key", signing.pkcs8Pem());
    const auto outcome =
        norvtest::run("cd " + m_folder.path("") + " && openssl dgst -sha256 -sign key -out signature body");
    ASSERT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_TRUE(verifies(signing, "the body", bufferOf(m_folder.read("signature"))));
}

INSTANTIATE_TEST_SUITE_P(Program, WithOpenSsl, testing::Values("rsa", "ec"));

} // namespace
