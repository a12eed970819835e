#include "engine/Streams.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Exception.h>

#include <algorithm>
#include <string_view>

namespace norvmilter {

namespace {

using Norvane::MediaIn;

/// No sound header is longer; the writers and the reader of mails stop long before.
constexpr std::size_t longestHeader = std::size_t{8} << 20U;

class TimedMediaIn : public Norvane::MediaInImpl {
public:
    TimedMediaIn(const MediaIn& in, const Deadline& deadline) : m_in(in), m_deadline(deadline) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_in.atEnd(); }
    [[nodiscard]] int peek() const override { return m_in.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        m_deadline.check();
        return m_in.read(out, length);
    }
    [[nodiscard]] unsigned long tell() const override { return m_in.tell(); }
    void setpos(unsigned long position) override { m_in.setpos(position); }

private:
    MediaIn m_in;
    Deadline m_deadline;
};

class WrittenMailImpl : public Norvane::MediaOutImpl {
public:
    WrittenMailImpl(const std::string& spool, const Deadline& deadline, std::uint64_t most)
        : body(spillIn(spool)),
          m_deadline(deadline),
          m_most(most) {
        m_header.protect(); // with the header, the body begins in it
    }
    using MediaOutImpl::write;

    void write(const unsigned char* data, unsigned int length) override {
        m_deadline.check();
        m_written += length;
        if (m_written > m_most)
            throw TooMuch("more than " + std::to_string(m_most) + " bytes would have to be written");
        if (m_isBody)
            return body.write(data, length);
        const std::size_t before = m_header.length();
        m_header.append(Norvane::Buffer(data, length, true));
        const std::string_view text = header();
        const bool isEmpty = text.starts_with("\r\n");
        const std::size_t end = isEmpty ? 0 : text.find("\r\n\r\n", before < 3 ? 0 : before - 3);
        if (end == std::string::npos) {
            if (text.size() > longestHeader)
                throw TooMuch("a header that does not end");
            return;
        }
        const std::size_t begin = end + (isEmpty ? 2 : 4);
        m_isBody = true;
        body.write(m_header.data() + begin, static_cast<unsigned int>(text.size() - begin));
        m_header.length(isEmpty ? 0 : static_cast<unsigned int>(end + 2));
    }

    [[nodiscard]] std::string_view header() const {
        return {reinterpret_cast<const char*>(m_header.data()), m_header.length()};
    }
    Norvane::SwapBufferMediaOut body;
    [[nodiscard]] std::uint64_t written() const noexcept { return m_written; }

private:
    Deadline m_deadline;
    std::uint64_t m_most;
    std::uint64_t m_written = 0;
    Norvane::Buffer m_header;
    bool m_isBody = false;
};

const WrittenMailImpl& bodyOf(const WrittenMail& mail) {
    return dynamic_cast<const WrittenMailImpl&>(*mail.operator->());
}

} // namespace

MediaIn timed(const MediaIn& in, const Deadline& deadline) {
    return MediaIn(Norvane::makeReference<TimedMediaIn, Norvane::MediaInImpl>(in, deadline));
}

WrittenMail::WrittenMail(const std::string& spool, const Deadline& deadline, std::uint64_t most)
    : MediaOut(Norvane::makeReference<WrittenMailImpl, Norvane::MediaOutImpl>(spool, deadline, most)) {}

WrittenMail::~WrittenMail() = default;

const Norvane::SwapBufferMediaOut& WrittenMail::body() const {
    return bodyOf(*this).body;
}

std::uint64_t WrittenMail::length() const {
    return bodyOf(*this).written();
}

std::vector<HeaderField> WrittenMail::header() const {
    const std::string_view octets = bodyOf(*this).header();
    std::vector<HeaderField> fields;
    for (std::size_t begin = 0; begin < octets.size();) {
        const std::size_t end = std::min(octets.find("\r\n", begin), octets.size());
        const std::string line(octets.substr(begin, end - begin));
        begin = end + 2;
        const bool isFold = !line.empty() && (line.front() == ' ' || line.front() == '\t');
        const std::size_t colon = line.find(':');
        if (isFold && !fields.empty())
            fields.back().value.append("\n").append(line);
        else if (!isFold && colon != std::string::npos)
            fields.push_back({line.substr(0, colon), line.substr(colon + 1)});
    }
    return fields;
}

} // namespace norvmilter
