// What decoding a structure costs: which certificates OpenSSL decodes, and how much memory a message takes.
#include "support/Decrypting.h"
#include "support/HandMadeSigners.h"
#include "support/Interpose.h"

#include <norvcrypto/CMSVerification.h>

#include <sys/mman.h>

#include <cstdarg>
#include <cstdlib>
#include <malloc.h>

using namespace cmstest;

namespace {

std::size_t s_keys = 0;       ///< allocations that OpenSSL made for the public keys of certificates
std::size_t s_recipients = 0; ///< recipients that were decoded one by one
std::size_t s_now = 0;        ///< bytes that OpenSSL and the library hold
std::size_t s_most = 0;

void account(std::size_t more, std::size_t less) {
    s_now += more - less;
    s_most = std::max(s_most, s_now);
}

void* countedMalloc(std::size_t length, const char* file, int /*line*/) {
    s_keys += file != nullptr && std::strstr(file, "x_pubkey.c") != nullptr ? 1U : 0U; // its source for them
    void* memory = std::malloc(length);
    account(malloc_usable_size(memory), 0);
    return memory;
}
void* countedRealloc(void* memory, std::size_t length, const char* /*file*/, int /*line*/) {
    // While it grows, memory is there twice.
    const std::size_t before = malloc_usable_size(memory);
    void* larger = std::realloc(memory, length);
    account(malloc_usable_size(larger), 0);
    account(0, before);
    return larger;
}
void countedFree(void* memory, const char* /*file*/, int /*line*/) {
    account(0, malloc_usable_size(memory));
    std::free(memory);
}

// Possible only before OpenSSL's first allocation.
const bool s_counting = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, countedFree) == 1;

} // namespace

extern "C" {

PKCS7_RECIP_INFO* d2i_PKCS7_RECIP_INFO(PKCS7_RECIP_INFO** reused, const unsigned char** der, long length) {
    ++s_recipients;
    return norvtest::next<&d2i_PKCS7_RECIP_INFO>("d2i_PKCS7_RECIP_INFO")(reused, der, length);
}
void* mmap(void* address, std::size_t length, int protection, int flags, int file, off_t offset) noexcept {
    void* pages = norvtest::next<&mmap>("mmap")(address, length, protection, flags, file, offset);
    account(pages == MAP_FAILED ? 0 : length, 0);
    return pages;
}
void* mremap(void* pages, std::size_t before, std::size_t after, int flags, ...) noexcept {
    using Call = void* (*)(void*, std::size_t, std::size_t, int, ...);
    static const auto original = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "mremap"));
    void* moved = original(pages, before, after, flags);
    account(moved == MAP_FAILED ? 0 : after, moved == MAP_FAILED ? 0 : before); // moved, not copied
    return moved;
}
int munmap(void* pages, std::size_t length) noexcept {
    account(0, length);
    return norvtest::next<&munmap>("munmap")(pages, length);
}
}

namespace {

const Bytes& body() {
    static const Bytes content = bodyOf(1000);
    return content;
}

/// Signed by alice, with that many certificates: hers and others of other serial numbers.
Bytes signedWith(std::size_t certificates) {
    std::vector<Bytes> others;
    for (std::size_t at = 1; at < certificates; ++at) {
        others.push_back(norvauthority::issue({.subject = {{"CN", "other"}},
                                               .key = storedKey("bob"),
                                               .issuer = &identities().authority,
                                               .serial = std::to_string(1000 + at)})
                             .certificate.der);
    }
    return withCertificates(signedByOpenssl(identities().rsa, body(), "SHA256", CMS_DETACHED), others);
}

/// The certificates that are decoded while `work` is done.
template <class Work> std::size_t keysOf(Work work) {
    static const std::size_t ofOne = [] {
        s_keys = 0;
        static_cast<void>(identities().rsa.certificate.x509());
        return s_keys;
    }();
    EXPECT_NE(ofOne, 0U);
    s_keys = 0;
    work();
    EXPECT_EQ(s_keys % ofOne, 0U);
    return s_keys / ofOne;
}

/// The most memory that is held while `work` is done, beyond what is held before.
template <class Work> std::size_t memoryOf(Work work) {
    s_most = s_now;
    const std::size_t before = s_now;
    work();
    return s_most - before;
}

bool isVerified(const Bytes& structure, const NVX509::RefCertificate& certificate) {
    const Norvane::MemoryMediaIn source(bufferOf(structure));
    Norvane::MediaIn in(source);
    const CMS::CMSVerifier verifier(in);
    PiecewiseIn content(body());
    return verifier.isValid(content, CMS::signedData(verifier.contentInfo()).signerInfo().front(), certificate);
}

constexpr std::size_t large = 20'000'000;

const NVX509::RefKeyStore& aliceKeys() {
    static const NVX509::RefKeyStore keys = storeOfKeys({&alice()});
    return keys;
}

void expectDecrypted(Norvane::MediaIn in) {
    const RecordedLog log;
    CMS::DecrypterMediaIn decrypter(in, aliceKeys());
    Norvane::NullMediaOut out;
    decrypter.write(out);
    EXPECT_TRUE(decrypter.decryptionSucceeded());
    EXPECT_EQ(out.tell(), large);
}

} // namespace

TEST(LazyWork, CertificatesThatNobodyAsksForAreNotDecoded) {
    ASSERT_TRUE(s_counting);
    const Bytes one = signedWith(1);
    const Bytes many = signedWith(20);
    const auto certificate = certificateOf(identities().rsa);
    EXPECT_EQ(keysOf([&] { EXPECT_TRUE(isVerified(one, certificate)); }), 0U);
    EXPECT_EQ(keysOf([&] { EXPECT_TRUE(isVerified(many, certificate)); }), 0U);
}

TEST(LazyWork, CertificatesAreDecodedOnceWhenTheyAreAskedFor) {
    const Bytes many = signedWith(20);
    EXPECT_EQ(keysOf([&] {
                  PiecewiseIn in(many);
                  const CMS::RefContentInfo message(in);
                  EXPECT_EQ(s_keys, 0U);
                  EXPECT_EQ(CMS::signedData(message).signerInfo().size(), 1U);
                  EXPECT_EQ(s_keys, 0U);
                  EXPECT_EQ(CMS::signedData(message).certificates().size(), 20U);
                  EXPECT_EQ(CMS::signedData(message).certificates().size(), 20U);
                  EXPECT_TRUE(derOf(message) == many);
              }),
              20U);
}

TEST(LazyWork, OnlyTheCertificatesThatASignerMeansAreDecoded) {
    const Bytes many = signedWith(20);
    PiecewiseIn in(many);
    const CMS::RefContentInfo message(in);
    PiecewiseIn content(body());
    CMS::SignatureReport report;
    EXPECT_EQ(keysOf([&] { report = CMS::verifySignatures(message, content); }), 1U);
    EXPECT_TRUE(report.allGood());
    // It is the one that the structure shows then.
    std::size_t shared = 0;
    const CMS::SignedData data = CMS::signedData(message);
    for (const auto& certificate : data.certificates()) {
        shared +=
            static_cast<x509_st*>(certificate) == static_cast<x509_st*>(report.signers.front().certificate) ? 1U : 0U;
    }
    EXPECT_EQ(shared, 1U);
}

TEST(LazyWork, RecipientsAreDecodedWhenThereIsAKeyForThem) {
    std::vector<Bytes> recipients(99, recipient(bob()));
    recipients.push_back(recipient(alice()));
    const RecordedLog log;
    PiecewiseIn in(handMade(body(), recipients));
    s_recipients = 0;
    CMS::DecrypterMediaIn decrypter(in, aliceKeys());
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    EXPECT_TRUE(decrypter.decryptionSucceeded());
    EXPECT_EQ(decrypter.failed().size(), 99U);
    EXPECT_EQ(s_recipients, 1U);
}

TEST(LazyWork, AMessageInMemoryIsDecryptedWhereItLies) {
    const Norvane::MemoryMediaIn der(bufferOf(encryptedByStream({&alice()}, Bytes(large, 1))));
    EXPECT_LT(memoryOf([&] { expectDecrypted(der); }), 1'000'000U);
    const Norvane::MemoryMediaIn ber(
        bufferOf(encryptedByOpenssl({&alice()}, Bytes(large, 1), EVP_aes_128_cbc(), CMS_STREAM)));
    EXPECT_LT(memoryOf([&] { expectDecrypted(ber); }), 1'000'000U);
}

TEST(LazyWork, AnyOtherMessageIsKeptOnce) {
    const PiecewiseIn der(encryptedByStream({&alice()}, Bytes(large, 1)), 65536);
    EXPECT_LT(memoryOf([&] { expectDecrypted(der); }), large + large / 20);
    // Where the length is not announced, there may be room for a quarter more.
    const PiecewiseIn ber(encryptedByOpenssl({&alice()}, Bytes(large, 1), EVP_aes_128_cbc(), CMS_STREAM), 65536);
    EXPECT_LT(memoryOf([&] { expectDecrypted(ber); }), large + large / 3);
}

TEST(LazyWork, AnAttachedContentIsThereOnceBesideTheMessage) {
    const Norvane::MemoryMediaIn attached(
        bufferOf(signedByOpenssl(identities().rsa, Bytes(large, 1), "SHA256", CMS_NOATTR)));
    Norvane::MediaIn in(attached);
    EXPECT_LT(memoryOf([&] { const CMS::RefContentInfo message(in); }), large + large / 20);
}

TEST(LazyWork, AMessageThatAnnouncesMoreThanItHasTakesNoMemory) {
    Bytes cut = encryptedByStream({&alice()}, Bytes(large, 1));
    cut.resize(10000);
    const RecordedLog log;
    PiecewiseIn in(cut, 100);
    EXPECT_LT(memoryOf([&] { EXPECT_EQ(caught([&] { const CMS::RefContentInfo message(in); }).line, 389U); }),
              1'000'000U);
}

TEST(LazyWork, TheSourceMayBeReadOnAndMayGo) {
    const Bytes content = bodyOf(100000);
    Bytes input = encryptedByStream({&alice()}, content);
    const std::size_t size = input.size();
    input.insert(input.end(), {'m', 'o', 'r', 'e'});
    auto in = std::make_unique<Norvane::MemoryMediaIn>(bufferOf(input));
    CMS::DecrypterMediaIn decrypter(*in, aliceKeys());
    EXPECT_EQ(in->tell(), size);
    EXPECT_EQ(in->peek(), 'm');
    std::string rest;
    in->setpos(3);
    EXPECT_EQ(in->read(rest), static_cast<int>(input.size() - 3));
    in.reset();
    Norvane::MemoryMediaOut out;
    decrypter.write(out);
    EXPECT_TRUE(bytesOf(out.content()) == content);
    decrypter.write(out);
    EXPECT_EQ(out.content().length(), 2 * content.size());
}
