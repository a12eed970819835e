// What writing a message takes: memory, counted; and public keys that others made to keep us busy. Bodies of more than 4 GiB.
#include "support/EnvelopeWriting.h"
#include "support/Interpose.h"
#include "support/Thrown.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>

#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <new>

using namespace cmstest;
using CMS::ContentCipher;
using CMS::EnvelopeEncoding;
using CMS::EnvelopeOptions;
using CMS::EnvelopeRecipient;
using norvtest::detailOf;
using norvtest::thrownBy;

namespace {

std::size_t s_allocations = 0;
std::size_t s_live = 0;
std::size_t s_peak = 0;
int s_encryptions = 0;
bool s_withoutEncrypting = false; ///< the result is nothing, and costs nothing

void* counted(void* memory) {
    ++s_allocations;
    s_live += malloc_usable_size(memory);
    s_peak = std::max(s_peak, s_live);
    return memory;
}
void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
    return counted(std::malloc(size == 0 ? 1 : size));
}
void give(void* memory, const char* /*file*/, int /*line*/) {
    s_live -= malloc_usable_size(memory);
    std::free(memory);
}
void* move(void* memory, std::size_t size, const char* file, int line) {
    if (size == 0) {
        give(memory, file, line);
        return nullptr;
    }
    s_live -= malloc_usable_size(memory);
    return counted(std::realloc(memory, size));
}
const bool s_counting = CRYPTO_set_mem_functions(allocate, move, give) == 1;

EnvelopeRecipient alice() {
    return EnvelopeRecipient(certificateOf(identities().rsa));
}
EnvelopeRecipient sharedKey() {
    return EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(32)), bufferOf(bytesOf(kekIdentifier)));
}

struct Taken {
    std::size_t allocations;
    std::size_t peak; ///< bytes above those before
};

/// What a body of `megabytes` takes, all of the message included.
Taken takenBy(const EnvelopeRecipient& recipient, EnvelopeOptions options, std::size_t megabytes) {
    const Bytes piece = bodyOf(1U << 20U);
    if (options.bodyLength) {
        options.bodyLength = megabytes << 20U;
    }
    Norvane::NullMediaOut target;
    const std::size_t live = s_live;
    s_peak = live;
    s_allocations = 0;
    {
        CMS::EnvelopeWriter writer({recipient}, options);
        writer.attach(target);
        for (std::size_t i = 0; i < megabytes; ++i) {
            writer.write(piece.data(), static_cast<unsigned int>(piece.size()));
        }
        writer.end();
    }
    EXPECT_GT(target.tell(), megabytes << 20U);
    return {s_allocations, s_peak - live};
}

/// An RSA key of numbers as they are given.
norvauthority::Key rsaKey(int bits, const char* exponentInHex) {
    BIGNUM* modulus = BN_new();
    BIGNUM* exponent = nullptr;
    BN_rand(modulus, bits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
    BN_hex2bn(&exponent, exponentInHex);
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, modulus);
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_E, exponent);
    OSSL_PARAM* parameters = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(context);
    EXPECT_EQ(EVP_PKEY_fromdata(context, &key, EVP_PKEY_PUBLIC_KEY, parameters), 1);
    norvauthority::Key answer = norvauthority::Key::of(key);
    EVP_PKEY_free(key);
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(parameters);
    OSSL_PARAM_BLD_free(builder);
    BN_free(exponent);
    BN_free(modulus);
    return answer;
}
NVX509::RefCertificate certificateWith(const norvauthority::Key& key, std::optional<Bytes> keyIdentifier = {}) {
    return certificateOf(norvauthority::issue({.subject = {{"CN", "odd"}},
                                               .key = key,
                                               .issuer = &identities().authority,
                                               .subjectKeyIdentifierValue = std::move(keyIdentifier)}));
}

std::string refused(const NVX509::RefCertificate& certificate) {
    s_encryptions = 0;
    const auto thrown = thrownBy([&] { EnvelopeRecipient recipient(certificate); });
    EXPECT_EQ(thrown.where(), "CMS::EnvelopeRecipient");
    EXPECT_EQ(s_encryptions, 0);
    return detailOf(thrown);
}
std::string refused(const std::vector<EnvelopeRecipient>& recipients) {
    const auto thrown = thrownBy([&] { const CMS::EnvelopeWriter writer(recipients); });
    EXPECT_EQ(thrown.where(), "CMS::EnvelopeWriter");
    return detailOf(thrown);
}

/// The regular files without a name that the process has open: their sizes.
std::vector<long> namelessFiles() {
    std::vector<long> sizes;
    DIR* folder = opendir("/proc/self/fd");
    for (const dirent* entry = readdir(folder); entry != nullptr; entry = readdir(folder)) {
        struct stat status {};
        const int number = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fstat(number, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 0) {
            EXPECT_EQ(status.st_mode & 0777U, 0600U);
            sizes.push_back(status.st_size);
        }
    }
    closedir(folder);
    return sizes;
}

/// A target that decrypts a message of zeros in AES-128-GCM as it comes, written by its one who has the shared key.
class DecryptingOut : public Norvane::MediaOutImpl {
public:
    explicit DecryptingOut(EnvelopeEncoding encoding)
        : m_isBer(encoding == EnvelopeEncoding::ber),
          m_context(EVP_CIPHER_CTX_new()) {}
    ~DecryptingOut() override { EVP_CIPHER_CTX_free(m_context); }
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        if (head.empty()) {
            head.assign(data, data + length);
            start();
            return;
        }
        if (length < 64) { // the last one: the tag, and the ends of BER
            last.assign(data, data + length);
            return;
        }
        const unsigned int header = m_isBer ? 4 : 0;
        int count = 0;
        EVP_DecryptUpdate(m_context, m_clear.data(), &count, data + header, static_cast<int>(length - header));
        clear += static_cast<std::uint64_t>(count);
        wrong += std::memcmp(m_clear.data(), m_zeros.data(), static_cast<std::size_t>(count)) == 0 ? 0 : 1;
    }
    void end() override {
        Bytes tag(last.begin() + (m_isBer ? 6 : 2), last.begin() + (m_isBer ? 22 : 18));
        EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_AEAD_SET_TAG, 16, tag.data());
        int count = 0;
        authentic = EVP_DecryptFinal_ex(m_context, m_clear.data(), &count) == 1;
    }

    Bytes head;
    Bytes last;
    std::uint64_t clear = 0;
    int wrong = 0;
    bool authentic = false;

private:
    [[nodiscard]] Bytes behind(const Bytes& what, std::size_t skipped, std::size_t length) const {
        auto at = std::search(head.begin(), head.end(), what.begin(), what.end());
        at += static_cast<std::ptrdiff_t>(what.size() + skipped);
        return {at, at + static_cast<std::ptrdiff_t>(length)};
    }
    void start() {
        const Bytes wrapped = behind(der::oid("2.16.840.1.101.3.4.1.45"), 2, 24);
        const Bytes nonce = behind(der::oid("2.16.840.1.101.3.4.1.6"), 4, 12);
        Bytes key(32);
        int count = 0;
        EVP_CIPHER_CTX* unwrapping = EVP_CIPHER_CTX_new();
        EVP_CIPHER_CTX_set_flags(unwrapping, EVP_CIPHER_CTX_FLAG_WRAP_ALLOW);
        EVP_DecryptInit_ex(unwrapping, EVP_aes_256_wrap(), nullptr, kekOf(32).data(), nullptr);
        EXPECT_EQ(EVP_DecryptUpdate(unwrapping, key.data(), &count, wrapped.data(), 24), 1);
        EVP_CIPHER_CTX_free(unwrapping);
        EVP_DecryptInit_ex(m_context, EVP_aes_128_gcm(), nullptr, key.data(), nonce.data());
    }

    bool m_isBer;
    EVP_CIPHER_CTX* m_context;
    Bytes m_clear = Bytes(1U << 20U);
    const Bytes m_zeros = Bytes(1U << 20U);
};

class EnvelopeBeyond4GiB : public ::testing::TestWithParam<EnvelopeEncoding> {};

} // namespace

void* operator new(std::size_t size) {
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return counted(memory);
}
void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        s_live -= malloc_usable_size(memory);
        std::free(memory);
    }
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

extern "C" int EVP_PKEY_encrypt(EVP_PKEY_CTX* context, unsigned char* out, std::size_t* outLength,
                                const unsigned char* in, std::size_t inLength) {
    ++s_encryptions;
    if (s_withoutEncrypting && out != nullptr) {
        std::fill_n(out, *outLength, static_cast<unsigned char>(1));
        return 1;
    }
    return norvtest::next<&EVP_PKEY_encrypt>("EVP_PKEY_encrypt")(context, out, outLength, in, inLength);
}

TEST(EnvelopeCost, SixtyFourMegabytesTakeTheMemoryOfOne) {
    ASSERT_TRUE(s_counting);
    const EnvelopeRecipient recipient = alice();
    for (const ContentCipher cipher : {ContentCipher::aes256Cbc, ContentCipher::aes256Gcm}) {
        for (const EnvelopeEncoding encoding : {EnvelopeEncoding::ber, EnvelopeEncoding::der}) {
            EnvelopeOptions options;
            options.cipher = cipher;
            options.encoding = encoding;
            if (encoding == EnvelopeEncoding::der) {
                options.bodyLength = 1;
            }
            takenBy(recipient, options, 1); // what OpenSSL keeps from the first time on
            const Taken one = takenBy(recipient, options, 1);
            const std::size_t live = s_live;
            const Taken many = takenBy(recipient, options, 64);
            EXPECT_EQ(s_live, live);
            EXPECT_EQ(one.allocations, many.allocations);
            EXPECT_EQ(one.peak, many.peak);
            EXPECT_GT(one.allocations, 0U);
            EXPECT_LT(many.peak, 40000U);
        }
    }
}

TEST(EnvelopeCost, WhatDerKeepsLiesInANamelessFileBeyond64KiB) {
    EnvelopeOptions options;
    options.encoding = EnvelopeEncoding::der;
    options.temporaryFile = "/tmp/swapXXXXXX";
    const Bytes piece = bodyOf(0x10000);
    const auto before = namelessFiles().size();
    Norvane::NullMediaOut target;
    {
        CMS::EnvelopeWriter writer({alice()}, options);
        writer.write(piece.data(), static_cast<unsigned int>(piece.size()));
        EXPECT_EQ(namelessFiles().size(), before);
        const std::size_t live = s_live;
        for (int i = 0; i < 31; ++i) {
            writer.write(piece.data(), static_cast<unsigned int>(piece.size()));
        }
        ASSERT_EQ(namelessFiles().size(), before + 1);
        EXPECT_EQ(namelessFiles().back(), 32 * 0x10000);
        EXPECT_LT(s_live, live + 1000);
        writer.attach(target);
        writer.end();
        EXPECT_EQ(namelessFiles().size(), before); // given back with the end
    }
    EXPECT_GT(target.tell(), 32UL * 0x10000);
}

TEST_P(EnvelopeBeyond4GiB, IsEncryptedToTheLastByte) {
    constexpr std::uint64_t length = (std::uint64_t{1} << 32U) + 12345;
    EnvelopeOptions options;
    options.cipher = ContentCipher::aes128Gcm;
    options.encoding = GetParam();
    options.bodyLength = length;
    Norvane::MediaOut target(Norvane::makeReference<DecryptingOut, Norvane::MediaOutImpl>(GetParam()));
    CMS::EnvelopeWriter writer({sharedKey()}, options);
    writer.attach(target);
    const Bytes zeros(1U << 24U);
    for (std::uint64_t left = length; left != 0;) {
        const auto count = static_cast<unsigned int>(std::min<std::uint64_t>(left, zeros.size()));
        writer.write(zeros.data(), count);
        left -= count;
    }
    writer.end();
    const auto& out = dynamic_cast<const DecryptingOut&>(*target);
    EXPECT_TRUE(out.authentic);
    EXPECT_EQ(out.clear, length);
    EXPECT_EQ(out.wrong, 0);
    const std::string start = norvauthority::toHex(Bytes(out.head.begin(), out.head.begin() + 4));
    const std::string end = norvauthority::toHex(Bytes(out.head.end() - 7, out.head.end()));
    if (GetParam() == EnvelopeEncoding::der) {
        EXPECT_EQ(start, "30850100");     // five octets of length
        EXPECT_EQ(end, "80850100003039"); // and the content's own
    } else {
        EXPECT_EQ(start, "3080060b");
    }
}
INSTANTIATE_TEST_SUITE_P(EnvelopeCost, EnvelopeBeyond4GiB,
                         ::testing::Values(EnvelopeEncoding::ber, EnvelopeEncoding::der));

TEST(EnvelopeCost, RsaKeysThatNobodyShouldHaveAreNotUsed) {
    const std::string text = "the RSA key has a modulus or a public exponent that no sound key has";
    EXPECT_EQ(refused(certificateWith(rsaKey(16400, "10001"))), text);
    EXPECT_EQ(refused(certificateWith(rsaKey(2048, "1FFFFFFFFFFFFFFFF"))), text); // 65 bits
    EXPECT_EQ(refused(certificateWith(rsaKey(3072, std::string(700, 'F').c_str()))), text);
    EXPECT_EQ(refused(certificateWith(rsaKey(2048, "1"))), text); // the content key itself would be sent
    s_encryptions = 0;
    EXPECT_NO_THROW(written({EnvelopeRecipient(certificateWith(rsaKey(16384, "10001")))}, EnvelopeOptions(), {}));
    EXPECT_NO_THROW(
        written({EnvelopeRecipient(certificateWith(rsaKey(2048, "FFFFFFFFFFFFFFFF")))}, EnvelopeOptions(), {}));
    EXPECT_NO_THROW(written({EnvelopeRecipient(certificateWith(rsaKey(2048, "3")))}, EnvelopeOptions(), {}));
    EXPECT_EQ(s_encryptions, 3);
}

TEST(EnvelopeCost, RecipientsAreLimitedInNumber) {
    s_encryptions = 0;
    EXPECT_EQ(refused(std::vector<EnvelopeRecipient>(10001, alice())), "more than 10000 recipients");
    EXPECT_EQ(s_encryptions, 0);
    EXPECT_NO_THROW(CMS::EnvelopeWriter(std::vector<EnvelopeRecipient>(10000, sharedKey())));
}

TEST(EnvelopeCost, TheKeysOfAllRecipientsAreOneSum) {
    const EnvelopeRecipient large(certificateWith(rsaKey(16384, "FFFFFFFFFFFFFFFF")));
    s_encryptions = 0;
    // 16384 squarings of a 1024-bit number each; 10,000,000 in all.
    EXPECT_EQ(refused(std::vector<EnvelopeRecipient>(611, large)),
              "the keys of the recipients cost too much to encrypt with");
    EXPECT_EQ(refused(std::vector<EnvelopeRecipient>(580, EnvelopeRecipient(certificateOf(onCurve("P-521"))))),
              "the keys of the recipients cost too much to encrypt with");
    EXPECT_EQ(s_encryptions, 0);
}

// The last of it may be spent; a key that sender and recipient share costs nothing.
TEST(EnvelopeCost, TheKeysOfAllRecipientsMayCostTheSum) {
    std::vector<EnvelopeRecipient> recipients(
        610, EnvelopeRecipient(certificateWith(rsaKey(16384, "FFFFFFFFFFFFFFFF")))); // 16384
    recipients.emplace_back(certificateWith(rsaKey(9715, "FFFFFFFFFFFFFFFF")));      // 5760
    static_assert(CMS::maximumEnvelopeWork == 610 * 16384 + 5760);
    recipients.push_back(sharedKey());
    const norvtest::During<bool> withoutEncrypting(s_withoutEncrypting, true);
    EXPECT_NO_THROW(CMS::EnvelopeWriter{recipients});
    recipients.push_back(alice());
    EXPECT_EQ(refused(recipients), "the keys of the recipients cost too much to encrypt with");
}

// KEKRecipientInfo (RFC 5652, 6.2.3) of any length, up to the last octet that all may have.
TEST(EnvelopeCost, RecipientsMayTakeAllOfTheirOctets) {
    const auto length = [](std::size_t ofIdentifier) {
        return der::element(0xA2,
                            der::concat({der::integer("4"), der::sequence({der::octetString(Bytes(ofIdentifier, 'k'))}),
                                         der::sequence({der::oid("2.16.840.1.101.3.4.1.45")}),
                                         der::octetString(Bytes(40, 0))})) // a key of 256 bits, wrapped
            .size();
    };
    const auto recipient = [](std::size_t ofIdentifier) {
        return EnvelopeRecipient::keyEncryptionKey(bufferOf(kekOf(32)), bufferOf(Bytes(ofIdentifier, 'k')));
    };
    constexpr std::size_t longest = 1000;
    const std::size_t many = CMS::maximumRecipientOctets / length(longest) - 1;
    const std::size_t rest = CMS::maximumRecipientOctets - many * length(longest);
    std::map<std::size_t, std::size_t> lengths; // of identifiers, by those of recipients
    for (std::size_t at = 1; at < longest; ++at) {
        lengths.emplace(length(at), at);
    }
    std::size_t first = 0;
    std::size_t second = 0;
    for (const auto& [octets, ofIdentifier] : lengths) {
        if (const auto other = octets < rest ? lengths.find(rest - octets) : lengths.end(); other != lengths.end()) {
            first = ofIdentifier;
            second = other->second;
        }
    }
    ASSERT_NE(first, 0U);
    EnvelopeOptions options;
    options.cipher = ContentCipher::aes256Cbc;
    std::vector<EnvelopeRecipient> recipients(many, recipient(longest));
    recipients.push_back(recipient(first));
    recipients.push_back(recipient(second));
    EXPECT_NO_THROW(CMS::EnvelopeWriter(recipients, options));
    recipients.back() = recipient(second + 1);
    EXPECT_EQ(detailOf(thrownBy([&] { CMS::EnvelopeWriter(recipients, options); })),
              "the recipients take more than 4193280 bytes, which readers refuse");
}

TEST(EnvelopeCost, NamesThatOthersMadeLongAreLimited) {
    const EnvelopeRecipient longName(certificateWith(storedKey("alice"), der::octetString(Bytes(60000, 7))),
                                     CMS::NamedBy::subjectKeyIdentifier);
    EXPECT_NO_THROW(CMS::EnvelopeWriter(std::vector<EnvelopeRecipient>(69, longName)));
    s_encryptions = 0;
    EXPECT_EQ(refused(std::vector<EnvelopeRecipient>(1000, longName)),
              "the recipients take more than 4193280 bytes, which readers refuse");
    EXPECT_EQ(s_encryptions, 70);
}
