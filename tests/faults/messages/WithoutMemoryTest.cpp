// What is signed and read while OpenSSL has no memory, at each stack of calls; and what OpenSSL alone does then.

#include "Operations.h"

#include <norvcrypto/Hasher.h>

#include <functional>
#include <optional>
#include <utility>

namespace {

using namespace faultsofmessages;

/// Whether the operation is what it should be when OpenSSL has no memory, from each stack of calls once.
void runEachStack(const Operation& operation) {
    faults::Extent extent;
    extent.stacks = true;
    extent.only = faults::Kind::opensslAllocation;
    faults::Tried tried;
    for (const faults::Finding& finding : faults::run(operation, extent, tried)) {
        ADD_FAILURE() << textOf(finding);
    }
    EXPECT_GT(tried.places, 20);
}

// Without memory OpenSSL calls signatures good that are not, and goes on with keys that only make such ones.
TEST(SigningWithoutMemory, SendsNothingWrongAndGoesOnAsPrescribed) {
    Norvane::Crypto::initialize();
    runEachStack(signsAsPrescribed());
}
TEST(SigningWithoutMemory, GivesOutNothingWrong) {
    Norvane::Crypto::initialize();
    runEachStack(signsADigest());
}
TEST(SigningWithoutMemory, SendsNothingWrongUnderRsa) {
    Norvane::Crypto::initialize();
    runEachStack(signs("RSA", alice(), [](auto&) {}));
}
TEST(SigningWithoutMemory, SendsNothingWrongUnderEcdsa) {
    Norvane::Crypto::initialize();
    runEachStack(signs("ECDSA", curve(), [](auto& options) { options.content = SignedWriter::Content::detached; }));
}

/// Signs with OpenSSL alone: the length that it tells, or nothing.
std::optional<std::size_t> opensslSigns(EVP_PKEY* key, Bytes& signature) {
    static const Bytes digest(32);
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key, nullptr),
                                                                              EVP_PKEY_CTX_free);
    std::size_t length = signature.size();
    const bool signedIt = context != nullptr && EVP_PKEY_sign_init(context.get()) == 1 &&
                          EVP_PKEY_sign(context.get(), signature.data(), &length, digest.data(), digest.size()) == 1;
    ERR_clear_error();
    return signedIt ? std::optional<std::size_t>(length) : std::nullopt;
}
bool opensslVerifies(EVP_PKEY* key, const Bytes& signature) {
    static const Bytes digest(32);
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key, nullptr),
                                                                              EVP_PKEY_CTX_free);
    const bool good =
        EVP_PKEY_verify_init(context.get()) == 1 &&
        EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1;
    ERR_clear_error();
    return good;
}

// A message is not called wrong for want of memory, and the next one is read.
TEST(ReadingWithoutMemory, CallsNoSignatureWrong) {
    Norvane::Crypto::initialize();
    const Bytes detached = signedByOpenssl(alice(), body(), "SHA256", CMS_DETACHED);
    runEachStack(readsSigned("good", detached, textOf(body()), false));
}
TEST(ReadingWithoutMemory, LeavesKeysThatDecryptTheNextMessage) {
    Norvane::Crypto::initialize();
    const Bytes message = encryptedByOpenssl({&alice()}, body(), EVP_aes_128_cbc(), CMS_STREAM);
    runEachStack(decryptsAsPrescribed("good", message, storeOfKeys({&alice()}), false));
}

// A key that fits is found all the same: the message is not called one for somebody else.
TEST(DecryptingWithoutMemory, FindsTheKeysOfBothKinds) {
    Norvane::Crypto::initialize();
    for (const auto& [kind, person] : {std::pair("RSA", &alice()), std::pair("ECDH", &curve())}) {
        const Bytes message =
            written({CMS::EnvelopeRecipient(certificateOf(*person))}, ContentCipher::aes128Cbc, {}, body());
        const CMS::KeyListLookup lookup({pairOf(*person)});
        runEachStack(readsEnvelope(
            kind, message, [&lookup](EnvelopeReader& reader) { return reader.open(lookup); }, false));
    }
}

// Nor is it called damaged, or the key a wrong one. Under OAEP OpenSSL tells no want of memory from a padding that is wrong.
TEST(DecryptingWithoutMemory, CallsNoMessageDamaged) {
    Norvane::Crypto::initialize();
    struct Case {
        const char* name;
        Bytes message;
        std::function<bool(EnvelopeReader&)> open;
    };
    const Norvane::Buffer secret = bufferOf(Bytes(32, 7));
    CMS::PasswordParameters few;
    few.iterations = CMS::minimumPasswordIterations;
    const auto to = [](const CMS::EnvelopeRecipient& recipient) {
        return written({recipient}, ContentCipher::aes128Gcm, {}, body());
    };
    const std::vector<Case> cases{
        {"ECDH", to(CMS::EnvelopeRecipient(certificateOf(curve()))),
         [](EnvelopeReader& reader) { return reader.open(reader.recipients().front(), pairOf(curve())); }},
        {"key-encryption key", to(CMS::EnvelopeRecipient::keyEncryptionKey(secret, bufferOf(bytesOf("id")))),
         [&](EnvelopeReader& reader) { return reader.open(reader.recipients().front(), secret); }},
        {"password", to(CMS::EnvelopeRecipient::password(secret, few)),
         [&](EnvelopeReader& reader) { return reader.openWithPassword(reader.recipients().front(), secret); }}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        long failed = 0;
        for (long number = 1;; number += number < 200 ? 1 : 997) { // a password is hashed thousands of times
            Norvane::MemoryMediaIn in(bufferOf(one.message));
            EnvelopeReader reader(in);
            static_cast<void>(reader.recipients());
            faults::arm(faults::Kind::opensslAllocation, number);
            bool opened = false;
            try {
                opened = one.open(reader);
            } catch (const std::bad_alloc&) { // as it should be
            }
            const bool came = faults::disarm();
            ERR_clear_error();
            if (opened) {
                Norvane::MemoryMediaOut out;
                EXPECT_NO_THROW(reader.write(out)) << number;
                EXPECT_EQ(reader.verdict(), EnvelopeReader::Complete) << number;
            }
            if (!came) {
                EXPECT_TRUE(opened);
                break;
            }
            ++failed;
        }
        EXPECT_GT(failed, 2);
    }
}

// Want of memory is no fault of the key.
TEST(EncryptingWithoutMemory, CallsNoKeyUnsound) {
    Norvane::Crypto::initialize();
    for (const Identity* person : {&alice(), &curve()}) {
        const auto certificate = certificateOf(*person);
        long failed = 0;
        for (long number = 1;; ++number) {
            faults::arm(faults::Kind::opensslAllocation, number);
            std::string thrown;
            try {
                const CMS::EnvelopeRecipient recipient(certificate);
            } catch (const std::bad_alloc&) { // as it should be
            } catch (const Norvane::Exception& failure) {
                thrown = failure.asString();
            }
            const bool came = faults::disarm();
            EXPECT_TRUE(thrown.find("that no sound key has") == std::string::npos &&
                        thrown.find("cannot encrypt") == std::string::npos)
                << number << ": " << thrown;
            if (!came) {
                break;
            }
            ++failed;
        }
        EXPECT_GT(failed, 0);
        ERR_clear_error();
    }
}

/// Lets OpenSSL's allocations fail until what it signs with the key is wrong.
bool spoil(EVP_PKEY* key) {
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    if (!opensslSigns(key, signature)) { // makes the blinding
        return false;
    }
    // Every 32 uses the blinding is made anew, with allocations in the middle of it. Three uses a turn come to each of these ages.
    for (long number = 1; number != 60; ++number) {
        for (int turn = 0; turn != 32; ++turn) {
            faults::arm(faults::Kind::opensslAllocation, number);
            static_cast<void>(opensslSigns(key, signature));
            static_cast<void>(faults::disarm());
            if (opensslSigns(key, signature) && !opensslVerifies(key, signature)) {
                return true;
            }
            static_cast<void>(opensslSigns(key, signature));
        }
    }
    return false;
}

// What OpenSSL 3.0 alone does, which nobody who calls it can tell from something else: why the library asks once more.
TEST(OpensslWithoutMemory, SignsWronglyWithAnRsaKeyAfterwards) {
    Norvane::Crypto::initialize();
    // A copy of its own: the blinding of a key that other threads used before is kept in another way.
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> own(EVP_PKEY_dup(alice().key.get()), EVP_PKEY_free);
    EXPECT_TRUE(spoil(own.get()));
}

/// Alice's certificate with a key of its own, which was used without memory.
NVX509::KeyCertificatePair spoilt() {
    const Crypto::RefKey key(Crypto::Key::PRIVATE_KEY);
    key->readPEM(bufferOf(bytesOf(alice().key.encryptedPem("secret"))), "secret");
    EXPECT_TRUE(spoil(key));
    return {key, certificateOf(alice())};
}

// The wrong signature that is made again in silence leaves no errors, which a later failure would be told with.
TEST(SigningWithASpoiltKey, LeavesNoErrorsBesideAGoodSignature) {
    Norvane::Crypto::initialize();
    const Crypto::SignerRef signer(Crypto::Hasher::SHA256);
    signer->signingKey(spoilt()->key);
    signer->update(body().data(), static_cast<unsigned int>(body().size()));
    const Norvane::Buffer signature = signer->sign();
    EXPECT_EQ(ERR_peek_error(), 0UL);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EXPECT_EQ(EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, alice().key.get()), 1);
    EXPECT_EQ(EVP_DigestVerify(context.get(), signature.data(), signature.length(), body().data(), body().size()), 1);
}
TEST(SigningWithASpoiltKey, LeavesNoErrorsBesideAGoodMessageAsPrescribed) {
    Norvane::Crypto::initialize();
    Target target;
    CMS::SignerMediaOut signer(Crypto::Hasher::SHA256, spoilt());
    signer.attach(target);
    writeInPieces(signer, body(), 1000);
    signer.end();
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(verified(target, body(), alice()).verdict, Answer::done);
}
TEST(SigningWithASpoiltKey, LeavesNoErrorsBesideAGoodMessage) {
    Norvane::Crypto::initialize();
    SignedWriter::Options options;
    options.signers.emplace_back(spoilt());
    Target target;
    SignedWriter writer(options);
    writer.attach(target);
    writeInPieces(writer, body(), 1000);
    writer.end();
    EXPECT_EQ(ERR_peek_error(), 0UL);
    EXPECT_EQ(verified(target, body(), alice()).verdict, Answer::done);
}

TEST(OpensslWithoutMemory, TellsALengthOfEcdsaThatItNeverWrote) {
    Norvane::Crypto::initialize();
    EVP_PKEY* const key = curve().key.get();
    int odd = 0;
    bool came = true;
    for (long number = 1; came; ++number) {
        Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
        faults::arm(faults::Kind::opensslAllocation, number);
        const auto length = opensslSigns(key, signature);
        came = faults::disarm();
        odd += length && (*length == 0 || *length > signature.size()) ? 1 : 0;
    }
    EXPECT_GT(odd, 0);
}
TEST(OpensslWithoutMemory, SaysThatEqualKeysDiffer) {
    Norvane::Crypto::initialize();
    const norvauthority::Bytes der = curve().key.publicDer();
    const unsigned char* at = der.data();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> other(
        d2i_PUBKEY(nullptr, &at, static_cast<long>(der.size())), EVP_PKEY_free);
    ASSERT_EQ(EVP_PKEY_eq(curve().key.get(), other.get()), 1);
    int differing = 0;
    bool came = true;
    for (long number = 1; came; ++number) {
        faults::arm(faults::Kind::opensslAllocation, number);
        const int answer = EVP_PKEY_eq(curve().key.get(), other.get());
        came = faults::disarm();
        differing += answer == 0 ? 1 : 0;
        ERR_clear_error();
    }
    EXPECT_GT(differing, 0);
}
TEST(OpensslWithoutMemory, SaysThatAKeyIsOfNoType) {
    Norvane::Crypto::initialize();
    int ofNone = 0;
    bool came = true;
    for (long number = 1; came; ++number) {
        faults::arm(faults::Kind::opensslAllocation, number);
        const int answer = EVP_PKEY_is_a(curve().key.get(), "EC");
        came = faults::disarm();
        ofNone += answer == 0 ? 1 : 0;
        ERR_clear_error();
    }
    EXPECT_GT(ofNone, 0);
}
TEST(OpensslWithoutMemory, ReadsACertificateWithoutItsKey) {
    Norvane::Crypto::initialize();
    const norvauthority::Bytes der = alice().certificate.der;
    int withoutKey = 0;
    bool came = true;
    for (long number = 1; came; ++number) {
        const unsigned char* at = der.data();
        faults::arm(faults::Kind::opensslAllocation, number);
        X509* const certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
        came = faults::disarm();
        withoutKey += certificate != nullptr && X509_get0_pubkey(certificate) == nullptr ? 1 : 0;
        X509_free(certificate);
        ERR_clear_error();
    }
    EXPECT_GT(withoutKey, 0);
}

} // namespace
