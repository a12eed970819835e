#include <norvcmsg/BytesInMemory.h>
#include <norvcmsg/Media.h>

#include "MediaFailure.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Norvane {

namespace {

Buffer bufferOf(const std::string& content) {
    if (content.size() > std::numeric_limits<unsigned int>::max()) {
        detail::throwMedia("MemoryMediaIn", "MemoryMedia", "more bytes than 32 bits count");
    }
    return {content.data(), static_cast<unsigned int>(content.size()), true};
}

class MemoryMediaInImpl : public MediaInImpl, public BytesInMemory {
public:
    explicit MemoryMediaInImpl(const Buffer& content) : m_content(content) {}

    [[nodiscard]] bool atEnd() const override { return m_position == m_content.length(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : std::as_const(m_content).data()[m_position]; }

    bool readline(Buffer& line) override {
        const auto* rest = std::as_const(m_content).data() + m_position;
        const auto left = m_content.length() - m_position;
        const auto* newline = static_cast<const unsigned char*>(std::memchr(rest, '\n', left));
        const auto length = newline == nullptr ? left : static_cast<unsigned int>(newline - rest) + 1;
        line = Buffer(rest, length, true);
        m_position += length;
        return length != 0;
    }

    using MediaInImpl::read;
    int read(unsigned char* out, unsigned int length) override {
        const auto count = std::min(
            {length, m_content.length() - m_position, static_cast<unsigned int>(std::numeric_limits<int>::max())});
        if (count != 0) {
            std::memcpy(out, std::as_const(m_content).data() + m_position, count);
        }
        m_position += count;
        return static_cast<int>(count);
    }

    [[nodiscard]] unsigned long tell() const override { return m_position; }
    void setpos(unsigned long position) override {
        if (position > m_content.length()) {
            detail::throwMedia("MemoryMediaIn::setpos", "MemoryMedia", "position past the end");
        }
        m_position = static_cast<unsigned int>(position);
    }

    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_content.data() + m_position; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_content.length() - m_position; }
    void skip(unsigned long count) noexcept override { m_position += static_cast<unsigned int>(count); }

private:
    const Buffer m_content;
    unsigned int m_position = 0;
};

class MemoryMediaOutImpl : public MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        const auto replaced = std::min(length, m_content.length() - m_position);
        // The bytes may be this stream's own content, handed back to it: those to be appended may be replaced first.
        const Buffer appended(data + replaced, length - replaced, replaced == 0);
        if (replaced != 0) {
            std::memmove(m_content.data() + m_position, data, replaced);
        }
        m_content.append(appended);
        m_position += length;
    }
    void end() override { m_ended = true; }
    [[nodiscard]] unsigned long tell() const override { return m_position; }
    void setpos(unsigned long position) override {
        if (position > m_content.length()) {
            detail::throwMedia("MemoryMediaOut::setpos", "MemoryMedia", "position past the end");
        }
        m_position = static_cast<unsigned int>(position);
    }

    [[nodiscard]] const Buffer& content() const { return m_content; }
    [[nodiscard]] bool ended() const { return m_ended; }

private:
    Buffer m_content;
    unsigned int m_position = 0;
    bool m_ended = false;
};

const MemoryMediaOutImpl& memoryOf(const MediaOutImpl* body) {
    const auto* memory = dynamic_cast<const MemoryMediaOutImpl*>(body);
    if (memory == nullptr) {
        throw MediaException("MemoryMediaOut", 1, "MemoryMedia", __LINE__);
    }
    return *memory;
}

class NullMediaOutImpl : public MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int length) override { m_count += length; }
    [[nodiscard]] unsigned long tell() const override { return m_count; }

private:
    unsigned long m_count = 0;
};

} // namespace

MemoryMediaIn::MemoryMediaIn(const Buffer& content) : MediaIn(makeReference<MemoryMediaInImpl, MediaInImpl>(content)) {}

MemoryMediaIn::MemoryMediaIn(const std::string& content) : MemoryMediaIn(bufferOf(content)) {}

MemoryMediaIn::~MemoryMediaIn() = default;

MemoryMediaOut::MemoryMediaOut() : MediaOut(makeReference<MemoryMediaOutImpl, MediaOutImpl>()) {}

MemoryMediaOut::~MemoryMediaOut() = default;

const Buffer& MemoryMediaOut::content() const {
    return memoryOf(bodyOrNull()).content();
}

bool MemoryMediaOut::ended() const {
    return memoryOf(bodyOrNull()).ended();
}

NullMediaOut::NullMediaOut() : MediaOut(makeReference<NullMediaOutImpl, MediaOutImpl>()) {}

NullMediaOut::~NullMediaOut() = default;

} // namespace Norvane
