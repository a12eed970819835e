#pragma once

// Streams that misbehave.

#include <norvcmsg/Media.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace norvtest {

/// What the streams below throw: a class of its own, which nothing but the streams can have thrown.
class StreamFailure : public Norvane::Exception {
public:
    using Exception::Exception;
    StreamFailure() : Exception("the stream", 7, "Streams", 1) {}
};

/// A source that delivers at most `piece` bytes a call and throws once `failAt` bytes were delivered.
class PieceMediaInImpl : public Norvane::MediaInImpl {
public:
    PieceMediaInImpl(std::string content, unsigned int piece, std::size_t failAt = std::string::npos)
        : m_content(std::move(content)),
          m_piece(piece),
          m_failAt(failAt) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_position == m_content.size(); }
    int peek() const override { return atEnd() ? -1 : static_cast<unsigned char>(m_content[m_position]); }
    int read(unsigned char* out, unsigned int length) override {
        ++calls;
        if (m_position >= m_failAt) {
            throw StreamFailure();
        }
        const std::size_t count = std::min(
            {static_cast<std::size_t>(length), static_cast<std::size_t>(m_piece), m_content.size() - m_position});
        std::copy_n(m_content.data() + m_position, count, out);
        m_position += count;
        return static_cast<int>(count);
    }

    unsigned int calls = 0; ///< of `read`

private:
    std::string m_content;
    unsigned int m_piece;
    std::size_t m_failAt;
    std::size_t m_position = 0;
};

class PieceMediaIn : public Norvane::MediaIn {
public:
    explicit PieceMediaIn(std::string content, unsigned int piece = ~0U, std::size_t failAt = std::string::npos)
        : MediaIn(Norvane::makeReference<PieceMediaInImpl, Norvane::MediaInImpl>(std::move(content), piece, failAt)) {}
    /// How often the body was asked for bytes.
    [[nodiscard]] unsigned int calls() const { return dynamic_cast<PieceMediaInImpl&>(*bodyOrNull()).calls; }
};

/// A sink that throws once it got more than `room` bytes.
class FailingMediaOutImpl : public Norvane::MediaOutImpl {
public:
    explicit FailingMediaOutImpl(std::size_t room) : m_room(room) {}
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        ++calls;
        if (content.size() + length > m_room) {
            throw StreamFailure();
        }
        content.append(reinterpret_cast<const char*>(data), length);
    }

    std::string content;
    unsigned int calls = 0; ///< of `write`

private:
    std::size_t m_room;
};

class FailingMediaOut : public Norvane::MediaOut {
public:
    explicit FailingMediaOut(std::size_t room = 0)
        : MediaOut(Norvane::makeReference<FailingMediaOutImpl, Norvane::MediaOutImpl>(room)) {}
    [[nodiscard]] const FailingMediaOutImpl& body() const {
        return dynamic_cast<const FailingMediaOutImpl&>(*bodyOrNull());
    }
};

/// The bytes of a buffer as a text.
inline std::string textOf(const Norvane::Buffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.data()), buffer.length()};
}

/// A buffer with a copy of a text's bytes, or of bytes.
inline Norvane::Buffer bufferOf(const std::string& text) {
    return {text.data(), static_cast<unsigned int>(text.size()), false};
}
inline Norvane::Buffer bufferOf(const std::vector<unsigned char>& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), false};
}

} // namespace norvtest
