// Messages signed, verified, encrypted and decrypted, certificates, lists and keys read, while memory runs out, streams fail
// and the process forks.

#include "FaultsTesting.h"

#include "support/Envelope.h"
#include "support/EnvelopeWriting.h"

#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/CertificateRevocationList.h>
#include <norvcrypto/Hasher.h>

#include <optional>
#include <set>
#include <sstream>

namespace {

using namespace cmstest;
using namespace faultstesting;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeReader;
using CMS::EnvelopeRecipient;
using CMS::SignatureVerdict;
using CMS::SignedReader;
using CMS::SignedWriter;
using Crypto::Hasher;

const Bytes& body() {
    static const Bytes bytes = bodyOf(3000);
    return bytes;
}
const Bytes& otherBody() {
    static const Bytes bytes = [] {
        Bytes changed = body();
        changed[1500] ^= 1U;
        return changed;
    }();
    return bytes;
}
const Identity& curve() {
    return onCurve("P-256");
}

// Signing.

/// Whether OpenSSL finds the signature of `by` good.
Answer verified(const Target& target, const Bytes& over, const Identity& by) {
    const faults::Pause pause;
    if (!target.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    const CmsStructure structure = decodedCms(bytesOf(target.content()));
    if (structure == nullptr) {
        return {Answer::wrong, "the structure does not decode"};
    }
    const auto certificate = by.certificate.x509();
    const X509Stack stack(sk_X509_new_null());
    sk_X509_push(stack.get(), certificate.get());
    const bool detached = CMS_is_detached(structure.get()) == 1;
    const Bio content(detached ? BIO_new_mem_buf(over.data(), static_cast<int>(over.size())) : nullptr);
    const Bio out(BIO_new(BIO_s_mem()));
    const bool good = CMS_verify(structure.get(), stack.get(), nullptr, content.get(), out.get(),
                                 CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1 &&
                      contentOf(out.get()) == over;
    ERR_clear_error();
    return good ? Answer{Answer::done} : Answer{Answer::wrong, "the signature is not good"};
}

Operation signsAsPrescribed() {
    const auto pair = pairOf(alice());
    return {.name = "SignerMediaOut", .act = [pair] {
                Target target;
                CMS::SignerMediaOut signer(Hasher::SHA256, pair);
                signer.attach(target);
                writeInPieces(signer, body(), 1000);
                signer.end();
                return verified(target, body(), alice());
            }};
}

Operation signs(const std::string& name, const Identity& who,
                const std::function<void(SignedWriter::Options&)>& change) {
    SignedWriter::Options options;
    options.signers.emplace_back(pairOf(who));
    options.memory = 500;
    options.spillFile = "/tmp/faultsXXXXXX";
    change(options);
    return {.name = "SignedWriter " + name, .act = [options, &who] {
                Target target;
                SignedWriter writer(options);
                writer.attach(target);
                writeInPieces(writer, body(), 1000);
                writer.end();
                return verified(target, body(), who);
            }};
}

Operation signsADigest() {
    const Crypto::RefKey key = pairOf(alice())->key;
    return {.name = "Signer", .act = [key] {
                const Crypto::SignerRef signer(Hasher::SHA256);
                signer->signingKey(key);
                signer->update(body().data(), static_cast<unsigned int>(body().size()));
                const Norvane::Buffer signature = signer->sign();
                const faults::Pause pause;
                const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                                      EVP_MD_CTX_free);
                const bool good =
                    EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, alice().key.get()) == 1 &&
                    EVP_DigestVerify(context.get(), signature.data(), signature.length(), body().data(),
                                     body().size()) == 1;
                ERR_clear_error();
                return good ? Answer{Answer::done} : Answer{Answer::wrong, "the signature is not good"};
            }};
}

// Verifying.

Operation verifiesAsPrescribed(const std::string& name, const Bytes& structure, const Bytes& over, bool bad) {
    const auto certificate = certificateOf(alice());
    return {.name = "CMSVerifier " + name,
            .act =
                [=] {
                    Norvane::MediaIn message = faults::source(textOf(structure));
                    const CMS::CMSVerifier verifier(message);
                    const auto signers = CMS::signedData(verifier.contentInfo()).signerInfo();
                    if (signers.empty()) {
                        return Answer{Answer::refused, "no signer"};
                    }
                    Norvane::MediaIn in = faults::source(textOf(over));
                    return verifier.isValid(in, signers.front(), certificate) ? Answer{Answer::done}
                                                                              : Answer{Answer::refused, "not valid"};
                },
            .mustRefuse = bad,
            .mayRefuse = true};
}

Answer answerOf(const CMS::SignatureReport& report) {
    const faults::Pause pause;
    if (report.signers.empty()) {
        return {Answer::refused, "no signer"};
    }
    const CMS::SignatureResult& result = report.signers.front();
    if (result.verdict == SignatureVerdict::good) {
        return result.certificate.isNull() ? Answer{Answer::wrong, "no certificate"} : Answer{Answer::done};
    }
    return {result.verdict == SignatureVerdict::unsupported ? Answer::undecided : Answer::refused,
            CMS::textOf(result.reason) + (result.algorithm.empty() ? "" : " " + result.algorithm)};
}

Operation verifies(const std::string& name, const Bytes& structure, const Bytes& over, bool bad) {
    return {.name = "verifySignatures " + name,
            .act =
                [=] {
                    Norvane::MediaIn message = faults::source(textOf(structure));
                    const CMS::RefContentInfo content(message);
                    Norvane::MediaIn in = faults::source(textOf(over));
                    return answerOf(CMS::verifySignatures(content, in));
                },
            .mustRefuse = bad};
}

Operation readsSigned(const std::string& name, const Bytes& structure, const std::string& over, bool bad) {
    return {.name = "SignedReader " + name,
            .act =
                [=] {
                    Target target;
                    SignedReader reader(faults::source(textOf(structure)));
                    if (reader.isDetached()) {
                        Norvane::MediaOut digest = reader.digest();
                        Norvane::MediaIn in = faults::source(over);
                        in.write(digest);
                    } else {
                        reader.write(target);
                        const faults::Pause pause;
                        if (!bad && target.content() != over) {
                            return Answer{Answer::wrong, "another content"};
                        }
                    }
                    return answerOf(reader.report());
                },
            .mustRefuse = bad};
}

// Encrypting.

Answer openedAgain(const Target& target, const Addressee& by) {
    const faults::Pause pause;
    if (!target.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    const auto clear = opened(bytesOf(target.content()), by);
    ERR_clear_error();
    return clear == body() ? Answer{Answer::done} : Answer{Answer::wrong, "OpenSSL does not open it"};
}

Operation encryptsAsPrescribed() {
    const auto recipients = certificatesOf({&alice(), &bob()});
    return {.name = "EncrypterMediaOut",
            .act =
                [recipients] {
                    Target target;
                    CMS::EncrypterMediaOut encrypter(Crypto::AES_256_CBC, recipients);
                    encrypter.attach(target);
                    writeInPieces(encrypter, body(), 1000);
                    encrypter.end();
                    return openedAgain(target, {"alice", EnvelopeRecipient(recipients.front()), &alice()});
                },
            .leavesQueue = true};
}

Operation encrypts(const std::string& name, const Addressee& to, ContentCipher cipher, EnvelopeEncoding encoding) {
    EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = encoding;
    options.temporaryFile = "/tmp/faultsXXXXXX";
    return {.name = "EnvelopeWriter " + name, .act = [to, options] {
                Target target;
                CMS::EnvelopeWriter writer({to.recipient}, options);
                writer.attach(target);
                writeInPieces(writer, body(), 1000);
                writer.end();
                return openedAgain(target, to);
            }};
}
Addressee addressee(const std::string& name) {
    for (const Addressee& one : addressees()) {
        if (one.name == name) {
            return one;
        }
    }
    throw std::out_of_range(name);
}

// Decrypting.

/// Whether that came out under another key. Where a content key is not opened, a random one is taken, so that all failures are
/// alike: of 256 of these, one comes to a good padding.
bool isGarbage(const std::string& content) {
    const std::string right = textOf(body());
    std::size_t same = 0;
    for (std::size_t i = 0; i != std::min(content.size(), right.size()); ++i) {
        same += content[i] == right[i] ? 1 : 0;
    }
    return content.size() <= right.size() + 16 && same * 16 < right.size();
}

Operation decryptsAsPrescribed(const std::string& name, const Bytes& structure, const NVX509::RefKeyStore& keys,
                               bool bad) {
    return {
        .name = "DecrypterMediaIn " + name,
        .act =
            [=] {
                Norvane::MediaIn message = faults::source(textOf(structure));
                Norvane::SwapBufferMediaOut clear(500, "/tmp/faultsXXXXXX");
                CMS::DecrypterMediaIn decrypter(message, keys);
                const bool good = decrypter.decrypt(clear);
                std::string content;
                clear.in().read(content);
                const faults::Pause pause;
                if (good != decrypter.decryptionSucceeded()) {
                    return Answer{Answer::wrong, "two answers"};
                }
                if (!good) {
                    return content.empty() ? Answer{Answer::refused, "not decrypted"}
                                           : Answer{Answer::wrong, "something is left of what failed"};
                }
                if (content == textOf(body())) {
                    return Answer{Answer::done};
                }
                return isGarbage(content) ? Answer{Answer::refused, "garbage"} : Answer{Answer::wrong, "another body"};
            },
        .mustRefuse = bad,
        .mayRefuse = true};
}

Operation readsEnvelope(const std::string& name, const Bytes& structure,
                        const std::function<bool(EnvelopeReader&)>& open, bool bad) {
    return {.name = "EnvelopeReader " + name,
            .act =
                [=] {
                    Target target;
                    EnvelopeReader reader(faults::source(textOf(structure)));
                    reader.spillTo("/tmp/faultsXXXXXX");
                    if (!open(reader)) {
                        return Answer{reader.unsupported().empty() ? Answer::refused : Answer::undecided,
                                      "not opened " + reader.unsupported()};
                    }
                    reader.write(target);
                    const faults::Pause pause;
                    if (reader.verdict() != EnvelopeReader::Complete || !reader.atEnd()) {
                        return Answer{Answer::refused, "verdict " + std::to_string(reader.verdict())};
                    }
                    if (target.content() != textOf(body())) {
                        return bad || isGarbage(target.content()) ? Answer{Answer::done, "another body"}
                                                                  : Answer{Answer::wrong, "another body"};
                    }
                    return Answer{Answer::done};
                },
            .mustRefuse = bad};
}

// What is read.

std::string shown(const NVX509::RefCertificate& certificate) {
    std::string all = certificate->subject().asString() + "|" + displayName(certificate->issuer()) + "|" +
                      certificate->name() + "|" + certificate->serialNumber().hex() + "|" +
                      std::to_string(certificate->version()) + "|" + std::to_string(certificate->keyUsage()) + "|" +
                      std::to_string(certificate->extendedKeyUsage()) + "|" +
                      std::to_string(certificate->extensions().size()) + "|" +
                      std::to_string(static_cast<int>(certificate->isCACert())) +
                      std::to_string(static_cast<int>(certificate->isSelfSigned()));
    all += "|"; // in one piece, since a certificate without memory may have none
    if (!certificate->subjectAlternativeName().isNull()) {
        for (const auto& name : certificate->subjectAlternativeName()->names()) {
            all += name.emailAddress().address() + ",";
        }
    }
    all += certificate->authorityKeyIdentifier().isNull()
               ? "|-"
               : "|" + x509testing::hexOf(*certificate->authorityKeyIdentifier()->keyId());
    all += certificate->subjectKeyIdentifier().isNull()
               ? "|-"
               : "|" + x509testing::hexOf(*certificate->subjectKeyIdentifier());
    all += static_cast<EVP_PKEY*>(certificate->key()) == nullptr ? "|no key" : "|key";
    return all;
}

/// What accessors say that cannot throw: where there is no memory, that there is nothing.
Answer sameOrNothing(const std::string& found, const std::string& expected) {
    static const std::set<std::string> nothing{"", "0", "00", "-1", "-", "no key", "none"};
    std::istringstream one(found);
    std::istringstream other(expected);
    Answer answer;
    for (std::string left, right; std::getline(other, right, '|');) {
        if (!std::getline(one, left, '|')) {
            return {Answer::wrong, found};
        }
        if (left != right) {
            if (nothing.count(left) == 0) {
                return {Answer::wrong, found};
            }
            answer = {Answer::refused, found};
        }
    }
    return answer;
}

Operation readsCertificate() {
    const Bytes der = alice().certificate.der;
    const std::string expected = shown(certificateOf(alice()));
    return {.name = "Certificate",
            .act =
                [=] {
                    const auto certificate = NVX509::CertificateFactory().readDER(bufferOf(der));
                    if (certificate.isNull()) {
                        return Answer{Answer::refused, "an empty handle"};
                    }
                    const std::string found = shown(certificate);
                    Target written;
                    certificate->writeDER(written);
                    const faults::Pause pause;
                    if (!written.content().empty() && written.content() != textOf(der)) {
                        return Answer{Answer::wrong, "another encoding of " + std::to_string(written.content().size())};
                    }
                    return sameOrNothing(found, expected);
                },
            .mayRefuse = true};
}

Operation readsCertificates() {
    const std::string pem = alice().certificate.pem() + bob().certificate.pem() + curve().certificate.pem();
    return {.name = "Certificates in PEM",
            .act =
                [=] {
                    std::list<NVX509::RefCertificate> certificates;
                    NVX509::CertificateFactory().readPem(bufferOf(bytesOf(pem)), certificates);
                    return certificates.size() == 3 ? Answer{Answer::done}
                                                    : Answer{Answer::refused, std::to_string(certificates.size())};
                },
            .mayRefuse = true};
}

Operation readsList() {
    const auto list =
        norvauthority::issueList({.issuer = &identities().authority,
                                  .revoked = {{.serial = "11", .reason = 1}, {.serial = "12"}, {.serial = "13"}},
                                  .crlNumber = "7"});
    const auto authority = certificateOf(identities().authority);
    return {.name = "CertificateRevocationList",
            .act =
                [=] {
                    const auto read = NVX509::CertificateRevocationListFactory().readDER(bufferOf(list.der));
                    if (read.isNull()) {
                        return Answer{Answer::refused, "an empty handle"};
                    }
                    const std::string found = read->crlInfo().issuer().asString() + "|" + read->crlNumber().hex() +
                                              "|" + std::to_string(static_cast<int>(read->issuedBy(authority, true))) +
                                              "|" + std::to_string(static_cast<int>(read->isDeltaCRL())) + "|" +
                                              std::to_string(read->crlInfo().extensions().size()) + "|" +
                                              (read->crlInfo().authorityKeyIdentifier().isNull() ? "no key" : "key") +
                                              "|" + (read->nextUpdate().isNull() ? "none" : "time");
                    Target written;
                    read->writeDER(written);
                    const faults::Pause pause;
                    if (!written.content().empty() && written.content() != textOf(list.der)) {
                        return Answer{Answer::wrong, "another encoding of " + std::to_string(written.content().size())};
                    }
                    static const std::string expected = found; // of the first time, without a fault
                    return sameOrNothing(found, expected);
                },
            .mayRefuse = true};
}

Operation readsKey(const std::string& passphrase, bool bad) {
    const std::string pem = alice().key.encryptedPem("secret");
    return {.name = std::string("PrivateKey ") + (bad ? "under another passphrase" : "in PEM"),
            .act =
                [=] {
                    Crypto::RefKey key(Crypto::Key::PRIVATE_KEY);
                    key->readPEM(bufferOf(bytesOf(pem)), passphrase);
                    const faults::Pause pause;
                    return static_cast<EVP_PKEY*>(key) != nullptr && EVP_PKEY_eq(key, alice().key.get()) == 1
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another key"};
                },
            .mustRefuse = bad,
            .weight = 2};
}

Operation hashes() {
    return {.name = "Hasher", .act = [] {
                Hasher hasher(Hasher::SHA256);
                hasher.update(body().data(), static_cast<unsigned int>(body().size()));
                hasher.finalize();
                const Norvane::Buffer digest = hasher.digest();
                const faults::Pause pause;
                Bytes expected(32);
                EVP_Digest(body().data(), body().size(), expected.data(), nullptr, EVP_sha256(), nullptr);
                return bytesOf(digest) == expected ? Answer{Answer::done} : Answer{Answer::wrong, "another digest"};
            }};
}

std::vector<Operation> operations() {
    Norvane::Crypto::initialize();
    const Bytes detached = signedByOpenssl(alice(), body(), "SHA256", CMS_DETACHED);
    const Bytes attached = signedByOpenssl(curve(), body(), "SHA256", CMS_STREAM);
    Bytes forged = detached;
    forged[forged.size() - 9] ^= 1U; // of the signature
    const auto keys = storeOfKeys({&alice()});
    const auto notHis = storeOfKeys({&bob()});
    const Bytes forAlice = encryptedByOpenssl({&alice()}, body(), EVP_aes_128_cbc(), CMS_STREAM);
    const Bytes gcm = written({EnvelopeRecipient(certificateOf(alice()))}, ContentCipher::aes256Gcm, {}, body());
    Bytes changed = gcm;
    changed[changed.size() - 3] ^= 1U; // of the tag
    const Bytes agreed = written({EnvelopeRecipient(certificateOf(curve()))}, ContentCipher::aes128Cbc, {}, body());
    const auto secret = addressee("password");
    const Bytes underPassword = written({secret.recipient}, ContentCipher::aes256Gcm, {}, body());
    const auto withPair = [](const Identity& who) {
        const auto lookup = std::make_shared<CMS::KeyListLookup>(std::list<NVX509::KeyCertificatePair>{pairOf(who)});
        return [lookup](EnvelopeReader& reader) { return reader.open(*lookup); };
    };
    const auto withPassword = [](const std::string& word) {
        return [word](EnvelopeReader& reader) {
            return reader.openWithPassword(reader.recipients().front(), bufferOf(bytesOf(word)));
        };
    };
    const std::string text = textOf(body());
    return {
        signsAsPrescribed(),
        signsADigest(),
        signs("RSA", alice(), [](auto&) {}),
        signs("detached, ECDSA", curve(), [](auto& options) { options.content = SignedWriter::Content::detached; }),
        signs("DER, ECDSA, spilled", curve(), [](auto& options) { options.encoding = SignedWriter::Encoding::der; }),
        signs("PSS", alice(), [](auto& options) { options.signers.front().rsaScheme = SignedWriter::RsaScheme::pss; }),
        verifiesAsPrescribed("good", detached, body(), false),
        verifiesAsPrescribed("of another body", detached, otherBody(), true),
        verifiesAsPrescribed("forged", forged, body(), true),
        verifies("good", detached, body(), false),
        verifies("of another body", detached, otherBody(), true),
        verifies("forged", forged, body(), true),
        readsSigned("good", detached, text, false),
        readsSigned("good, ECDSA, attached", attached, text, false),
        readsSigned("of another body", detached, textOf(otherBody()), true),
        readsSigned("forged", forged, text, true),
        encryptsAsPrescribed(),
        encrypts("RSA, CBC", addressee("rsa"), ContentCipher::aes128Cbc, EnvelopeEncoding::ber),
        encrypts("ECDH, GCM", addressee("P-256"), ContentCipher::aes256Gcm, EnvelopeEncoding::ber),
        encrypts("OAEP, DER", addressee("oaep"), ContentCipher::aes256Cbc, EnvelopeEncoding::der),
        encrypts("password", addressee("password"), ContentCipher::aes256Gcm, EnvelopeEncoding::ber),
        decryptsAsPrescribed("good", forAlice, keys, false),
        decryptsAsPrescribed("with the key of another", forAlice, notHis, true),
        decryptsAsPrescribed("cut off", Bytes(forAlice.begin(), forAlice.end() - 100), keys, true),
        readsEnvelope("RSA, CBC", forAlice, withPair(alice()), false),
        readsEnvelope("GCM", gcm, withPair(alice()), false),
        readsEnvelope("GCM, changed", changed, withPair(alice()), true),
        readsEnvelope("GCM, cut off", Bytes(gcm.begin(), gcm.end() - 20), withPair(alice()), true),
        readsEnvelope("ECDH", agreed, withPair(curve()), false),
        readsEnvelope("with the key of another", gcm, withPair(bob()), true),
        readsEnvelope("password", underPassword, withPassword(password), false),
        readsEnvelope("another password", underPassword, withPassword("another"), true),
        readsCertificate(),
        readsCertificates(),
        readsList(),
        readsKey("secret", false),
        readsKey("another", true),
        hashes()};
}

NORV_FAULTS(Messages, operations);

/// Whether the operation is what it should be when OpenSSL has no memory, from each stack of calls once.
void runEachStack(const Operation& operation) {
    faults::Extent extent;
    extent.stacks = true;
    extent.only = faults::Kind::opensslAllocation;
    faults::Tried tried;
    for (const faults::Finding& finding : faults::run(operation, extent, tried)) {
        if (!isOpensslsOwn(finding)) {
            ADD_FAILURE() << textOf(finding);
        }
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

// What the table in driver/OpensslDefects.cpp says, with OpenSSL alone.
TEST(OpensslWithoutMemory, SignsWronglyWithAnRsaKeyAfterwards) {
    Norvane::Crypto::initialize();
    // A copy of its own: the blinding of a key that other threads used before is kept in another way.
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> own(EVP_PKEY_dup(alice().key.get()), EVP_PKEY_free);
    EVP_PKEY* const key = own.get();
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)));
    ASSERT_TRUE(opensslSigns(key, signature)); // makes the blinding
    int wrong = 0;
    // Every 32 uses the blinding is made anew, with allocations in the middle of it. Three uses a turn come to each of these ages.
    for (long number = 1; number != 60 && wrong == 0; ++number) {
        for (int turn = 0; turn != 32 && wrong == 0; ++turn) {
            faults::arm(faults::Kind::opensslAllocation, number);
            static_cast<void>(opensslSigns(key, signature));
            static_cast<void>(faults::disarm());
            wrong += opensslSigns(key, signature) && !opensslVerifies(key, signature) ? 1 : 0;
            static_cast<void>(opensslSigns(key, signature));
        }
    }
    EXPECT_GT(wrong, 0);
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
