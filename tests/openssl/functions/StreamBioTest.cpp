// Streams as BIOs: what of a call of OpenSSL's reaches the stream, and what of a stream's answer is believed.
#include "openssl/StreamBio.h"

#include "openssl/Pointers.h"
#include "openssl/TrueCountBio.h"

#include <norvcmsg/Buffer.h>

#include <openssl/bio.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

using namespace Norvane::Crypto::openssl;

namespace {

/// Answers what it is told, of 'a', 'b', 'c' ..., and keeps what it was asked for.
class ToldInImpl : public Norvane::MediaInImpl {
public:
    explicit ToldInImpl(std::vector<int> answers) : m_answers(std::move(answers)) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_asked.size() == m_answers.size(); }
    [[nodiscard]] int peek() const override { return -1; }
    int read(unsigned char* out, unsigned int length) override {
        if (atEnd()) {
            return 0;
        }
        const int answer = m_answers[m_asked.size()];
        m_asked.push_back(length);
        for (unsigned int i = 0; i < std::min(length, static_cast<unsigned int>(answer)); ++i) {
            out[i] = m_next++;
        }
        return answer;
    }
    [[nodiscard]] const std::vector<unsigned int>& asked() const { return m_asked; }

private:
    std::vector<int> m_answers;
    std::vector<unsigned int> m_asked;
    unsigned char m_next = 'a';
};

class KeepingOutImpl : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        ++writes;
        text.append(reinterpret_cast<const char*>(data), length);
    }
    int writes = 0;
    std::string text;
};

} // namespace

TEST(StreamBio, IsASourceOrSinkWithTheNumberOne) {
    ToldInImpl source({});
    KeepingOutImpl sink;
    Norvane::Buffer pending;
    StreamBio in(source);
    StreamBio out(sink, pending);
    for (StreamBio* each : {&in, &out}) {
        EXPECT_EQ(BIO_method_type(each->get()), 0x401);
        EXPECT_EQ(StreamBio::behind(each->get()), each);
        EXPECT_EQ(BIO_get_shutdown(each->get()), 1);
        EXPECT_EQ(BIO_get_init(each->get()), 1);
    }
    EXPECT_TRUE(in.reads());
    EXPECT_FALSE(out.reads());
    const BioPtr memory(BIO_new(BIO_s_mem())); // of the same type
    EXPECT_EQ(BIO_method_type(memory.get()), 0x401);
    EXPECT_EQ(StreamBio::behind(memory.get()), nullptr);
    EXPECT_EQ(StreamBio::behind(nullptr), nullptr);
}

TEST(StreamBio, ReadsUntilThereIsEnoughAndNoFurther) {
    ToldInImpl source({3, 4, 9, 1});
    StreamBio in(source);
    unsigned char out[16];
    std::memset(out, '.', sizeof out);
    ASSERT_EQ(in.read(out, 10), 10);
    EXPECT_EQ(std::string(out, out + 12), "abcdefghij..");
    EXPECT_EQ(source.asked(), (std::vector<unsigned int>{10, 7, 3}))
        << "what is still missing, of which it claims more in the end";
}

TEST(StreamBio, WritesThatHoldNothingDoNotReachTheStream) {
    KeepingOutImpl sink;
    Norvane::Buffer pending;
    StreamBio out(sink, pending);
    EXPECT_EQ(BIO_write(out.get(), "x", 1), 1);
    EXPECT_EQ(BIO_puts(out.get(), "y"), 1);
    EXPECT_EQ(sink.text, "xy");
    EXPECT_LE(BIO_write(out.get(), "x", 0), 0);
    EXPECT_LE(BIO_puts(out.get(), ""), 0);
    EXPECT_LE(BIO_write(out.get(), nullptr, 5), 0);
    EXPECT_EQ(sink.writes, 2);
}

TEST(TrueCountBio, IsAFilterThatReadsIntoSomething) {
    ToldInImpl source({3, 2});
    auto in = std::make_unique<StreamBio>(source);
    ASSERT_EQ(BIO_up_ref(in->get()), 1);
    const BioPtr adapter(in->get());
    const BioPtr counting = trueCountBio(adapter.get());
    ASSERT_NE(counting, nullptr);
    EXPECT_EQ(BIO_method_type(counting.get()), BIO_TYPE_FILTER | 1);
    char out[8] = {};
    EXPECT_LE(BIO_read(counting.get(), nullptr, 5), 0);
    EXPECT_LE(BIO_read(counting.get(), out, 0), 0);
    EXPECT_TRUE(source.asked().empty());
    EXPECT_EQ(BIO_read(counting.get(), out, 8), 5);
    EXPECT_STREQ(out, "abcde");
    in.reset();
    EXPECT_LE(BIO_read(counting.get(), out, 8), 0) << "the stream is gone";
}
