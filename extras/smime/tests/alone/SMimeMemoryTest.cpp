// Messages of any size are read in the same memory: what is kept is counted by the allocations of this process.
#include "../Mails.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {
std::atomic<long> s_live{0};
std::atomic<long> s_peak{0};

void* counted(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    const long live = s_live += static_cast<long>(malloc_usable_size(memory));
    long peak = s_peak;
    while (live > peak && !s_peak.compare_exchange_weak(peak, live)) {
    }
    return memory;
}
void uncounted(void* memory) noexcept {
    if (memory != nullptr)
        s_live -= static_cast<long>(malloc_usable_size(memory));
    std::free(memory);
}
} // namespace

void* operator new(std::size_t size) {
    return counted(size);
}
void* operator new[](std::size_t size) {
    return counted(size);
}
void operator delete(void* memory) noexcept {
    uncounted(memory);
}
void operator delete[](void* memory) noexcept {
    uncounted(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    uncounted(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    uncounted(memory);
}

using namespace smimetest;
using interop::alice;
using interop::bob;

namespace {

constexpr long megabyte = 1L << 20;

/// A text with one piece in its middle repeated so often that it is `length` long, which is never kept.
class LongIn : public Norvane::MediaInImpl {
public:
    LongIn(std::string before, std::string piece, std::uint64_t repeated, std::string behind)
        : m_before(std::move(before)),
          m_piece(std::move(piece)),
          m_behind(std::move(behind)),
          m_left(repeated) {
        m_now = m_before;
    }
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return false; }
    [[nodiscard]] int peek() const override { return -1; }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        while (done < length && next()) {
            const auto count = std::min<std::size_t>(length - done, m_now.size());
            std::copy_n(m_now.data(), count, out + done);
            m_now.remove_prefix(count);
            done += static_cast<unsigned int>(count);
        }
        return static_cast<int>(done);
    }

private:
    bool next() {
        if (!m_now.empty())
            return true;
        if (m_left > 0) {
            --m_left;
            m_now = m_piece;
        } else if (!m_ended) {
            m_ended = true;
            m_now = m_behind;
        }
        return !m_now.empty();
    }
    std::string m_before;
    std::string m_piece;
    std::string m_behind;
    std::string_view m_now;
    std::uint64_t m_left;
    bool m_ended = false;
};

/// The most that reading took beside what was there before, and the answer.
std::pair<long, Answer> peakOf(const Norvane::MediaIn& in, const SMime::ReadOptions& options) {
    Norvane::MediaOut content = Norvane::NullMediaOut();
    const long before = s_live;
    s_peak = before;
    Answer answer = SMime::read(in, content, options);
    return {s_peak - before, answer};
}

template <class... Arguments> Norvane::MediaIn longIn(Arguments&&... arguments) {
    return Norvane::MediaIn(
        Norvane::makeReference<LongIn, Norvane::MediaInImpl>(std::forward<Arguments>(arguments)...));
}

const std::string line = std::string(76, 'A') + "\r\n";
const std::string multipartSigned =
    "Content-Type: multipart/signed; protocol=\"application/pkcs7-signature\"; boundary=b\r\n\r\n--b\r\n\r\n";

TEST(SMimeMemory, ASignedPartOfTwentyMegabytes) {
    Norvane::Crypto::initialize();
    static_cast<void>(outcomeOf(fieldsOfAlice + signedBy(alice(), plainEntity, CMS_DETACHED))); // what is made once
    const std::string behind = "\r\n--b\r\nContent-Type: application/pkcs7-signature\r\n\r\n\r\n--b--\r\n";
    const auto [peak, answer] = peakOf(longIn(multipartSigned, line, 260000U, behind), {});
    EXPECT_EQ(answer.layers.size(), 1U);
    EXPECT_EQ(answer.contentPath, "1.1");
    EXPECT_LT(peak, megabyte);
}

/// An encrypted message as OpenSSL streams it: BER, its content in segments.
std::string streamed(const std::string& entity) {
    const Bio content = sourceOf(entity);
    const std::unique_ptr<STACK_OF(X509), Freeing> certificates(sk_X509_new_null());
    const auto certificate = bob().certificate.x509();
    sk_X509_push(certificates.get(), certificate.get());
    const unsigned int flags = CMS_BINARY | CMS_STREAM;
    const Structure structure(CMS_encrypt(certificates.get(), content.get(), EVP_aes_256_cbc(), flags));
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_CMS_bio_stream(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    return textOf(out.get());
}

TEST(SMimeMemory, AnEncryptedPartOfTwentyMegabytes) {
    const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    const std::string mail = fieldsOfAlice +
                             "Content-Type: application/pkcs7-mime\r\nContent-Transfer-Encoding: binary\r\n\r\n" +
                             streamed("\r\n" + std::string(30000, 'x'));
    static_cast<void>(outcomeOf(mail));
    // One of the segments in the middle again and again: it decrypts to something, and the end fits.
    const std::string header("\x04\x82\x10\x00", 4);
    const std::size_t first = mail.find(header, mail.find(header) + 4);
    const std::size_t next = first + 4 + 4096;
    ASSERT_EQ(mail.substr(next, 4), header);
    const auto [peak, answer] =
        peakOf(longIn(mail.substr(0, first), mail.substr(first, next - first), 5000U, mail.substr(first)), options);
    EXPECT_EQ(answer.verdict, Verdict::decrypted) << answer.detail;
    EXPECT_LT(peak, megabyte);
}

TEST(SMimeMemory, HeadersLinesAndPartsWithoutEnd) {
    const std::string mixed = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
    EXPECT_LT(peakOf(longIn("Subject: ", line, 60000U, ""), {}).first, 2 * megabyte);
    EXPECT_LT(peakOf(longIn("", "X: y\r\n", 800000U, ""), {}).first, 2 * megabyte);
    EXPECT_LT(peakOf(longIn(mixed, std::string(78, 'A'), 60000U, ""), {}).first, megabyte);
    EXPECT_LT(peakOf(longIn(mixed, "--b\r\n\r\n", 700000U, ""), {}).first, 2 * megabyte);
    EXPECT_LT(peakOf(longIn(mixed, "--b--x\r\n", 600000U, ""), {}).first, megabyte);
    EXPECT_LT(peakOf(longIn(mixed, "--b" + std::string(129, ' ') + "\r\n", 40000U, ""), {}).first, megabyte);
    EXPECT_LT(peakOf(longIn(multipartSigned, "--b--x\r\n", 600000U, ""), {}).first, megabyte);
}

} // namespace
