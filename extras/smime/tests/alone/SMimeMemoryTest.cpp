// What has no end is read in little memory (long messages are in WriterMemoryTest.cpp): what is kept is counted by the allocations of this process.
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

TEST(SMimeMemory, HeadersLinesAndPartsWithoutEnd) {
    Norvane::Crypto::initialize();
    static_cast<void>(outcomeOf(fieldsOfAlice + signedBy(alice(), plainEntity, CMS_DETACHED))); // what is made once
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
