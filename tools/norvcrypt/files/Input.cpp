#include "files/Input.h"
#include "base/Failure.h"
#include "files/Scratch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace norvcrypt {

namespace {

constexpr unsigned int largestInMemory = 1U << 28U;

/// Reads a descriptor through a buffer of fixed size; much at once goes past the buffer. Goes back to where it began, if
/// the descriptor is that of a file.
class DescriptorSource : public Norvane::MediaInImpl {
public:
    DescriptorSource(int descriptor, std::string name, Progress* progress)
        : m_descriptor(descriptor),
          m_name(std::move(name)),
          m_progress(progress) {
        struct stat status {};
        if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
            m_begin = lseek(descriptor, 0, SEEK_CUR);
    }
    ~DescriptorSource() override {
        if (m_descriptor != STDIN_FILENO)
            close(m_descriptor);
    }
    DescriptorSource(const DescriptorSource&) = delete;
    DescriptorSource& operator=(const DescriptorSource&) = delete;

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override {
        fill();
        return m_at == m_end;
    }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_bytes.data()[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        while (done < length) {
            if (m_at == m_end && length - done >= atOnce) {
                const std::size_t count = fetch(out + done, length - done);
                if (count == 0)
                    break;
                done += static_cast<unsigned int>(count);
                continue;
            }
            if (atEnd())
                break;
            const auto count = std::min<std::size_t>(length - done, m_end - m_at);
            std::memcpy(out + done, m_bytes.data() + m_at, count);
            m_at += count;
            done += static_cast<unsigned int>(count);
        }
        return static_cast<int>(done);
    }
    Norvane::MediaOut& write(Norvane::MediaOut& out) override {
        while (!atEnd()) {
            out.write(m_bytes.data() + m_at, static_cast<unsigned int>(m_end - m_at));
            m_at = m_end;
        }
        return out;
    }
    [[nodiscard]] unsigned long tell() const override {
        return m_begin < 0 ? MediaInImpl::tell() : m_fetched - (m_end - m_at);
    }
    void setpos(unsigned long position) override {
        if (m_begin < 0)
            MediaInImpl::setpos(position);
        if (lseek(m_descriptor, m_begin + static_cast<off_t>(position), SEEK_SET) < 0)
            throw Failure("cannot read " + m_name, errno);
        m_fetched = position;
        m_at = m_end;
        m_ended = false;
    }

private:
    static constexpr unsigned int atOnce = 1U << 15U;

    /// 0 at the end.
    std::size_t fetch(unsigned char* out, std::size_t length) const {
        if (m_ended)
            return 0;
        ssize_t count = 0;
        do
            count = ::read(m_descriptor, out, length);
        while (count < 0 && errno == EINTR);
        if (count < 0)
            throw Failure("cannot read " + m_name, errno);
        m_ended = count == 0;
        m_fetched += static_cast<unsigned long>(count);
        if (m_progress != nullptr)
            m_progress->advance(static_cast<std::uint64_t>(count));
        return static_cast<std::size_t>(count);
    }
    void fill() const {
        if (m_at != m_end || m_ended)
            return;
        m_end = fetch(m_bytes.data(), m_bytes.size());
        m_bytes.used(m_end);
        m_at = 0;
    }

    int m_descriptor;
    std::string m_name;
    Progress* m_progress;
    off_t m_begin = -1;             ///< where a file is gone back to
    mutable Scratch m_bytes{65536}; // it may be a key that passes
    mutable std::size_t m_at = 0;
    mutable std::size_t m_end = 0;
    mutable unsigned long m_fetched = 0;
    mutable bool m_ended = false;
};

/// Delivers bytes that were read already, then what follows them.
class ResumedSource : public Norvane::MediaInImpl {
public:
    ResumedSource(const Norvane::Buffer& start, const Norvane::MediaIn& rest) : m_start(start), m_rest(rest) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_start.atEnd() && m_rest.atEnd(); }
    [[nodiscard]] int peek() const override { return m_start.atEnd() ? m_rest.peek() : m_start.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        const int first = m_start.read(out, length);
        const auto done = static_cast<unsigned int>(first);
        return done == length ? first : first + m_rest.read(out + done, length - done);
    }

private:
    Norvane::MemoryMediaIn m_start;
    Norvane::MediaIn m_rest;
};

} // namespace

std::string inputName(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

Norvane::Buffer Inputs::start(const std::string& path, unsigned int length) {
    Norvane::MediaIn in = open(path);
    Norvane::Buffer start;
    const Norvane::MediaIn all = lookAhead(in, length, start);
    try {
        in.setpos(0);
        if (path == "-")
            m_begun.insert_or_assign(path, in);
    } catch (const Norvane::Exception&) {
        m_begun.insert_or_assign(path, all); // a pipe
    }
    return start;
}

Norvane::MediaIn Inputs::open(const std::string& path, Progress* progress) {
    if (const auto begun = m_begun.extract(path); !begun.empty())
        return begun.mapped();
    int descriptor = STDIN_FILENO;
    if (path != "-") {
        // What is one of many may be anything; opening a pipe would wait for somebody who writes to it.
        const int flags = areOfOneOfMany() ? O_NONBLOCK | O_NOCTTY : 0;
        descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | flags);
        if (descriptor < 0)
            throw Failure("cannot open " + path, errno);
    } else if (std::exchange(m_standardInputTaken, true)) {
        throw Failure("standard input can be read only once");
    }
    const Norvane::MediaIn in(
        Norvane::makeReference<DescriptorSource, Norvane::MediaInImpl>(descriptor, inputName(path), progress));
    struct stat status {};
    const bool isKnown = fstat(descriptor, &status) == 0;
    if (isKnown && S_ISREG(status.st_mode)) {
        if (progress != nullptr)
            progress->expect(static_cast<std::uint64_t>(status.st_size));
        note(path, FileIdentity(status));
    } else if (areOfOneOfMany() && !(isKnown && S_ISDIR(status.st_mode))) {
        throw Failure("cannot read " + inputName(path) + ": " + notAFile); // reading a folder fails in its own words
    }
    return in;
}

void Inputs::note(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
        note(path, FileIdentity(status));
}

void Inputs::noteLater(EachFile eachFile) {
    if (m_replaced.empty())
        m_later.push_back(std::move(eachFile));
    else
        eachFile([this](const std::string& path) { note(path); });
}

bool Inputs::hold(const FileIdentity& file) {
    for (const EachFile& eachFile : std::exchange(m_later, {}))
        eachFile([this](const std::string& path) { note(path); });
    return m_read.contains(file) || (m_shared != nullptr && m_shared->m_read.contains(file));
}

void Inputs::note(const std::string& path, const FileIdentity& file) {
    if (m_replaced.contains(file))
        throw Failure("cannot read " + inputName(path) + ": it is the output too, which would replace it");
    m_read.insert(file);
}

Norvane::MediaIn Inputs::lookAhead(Norvane::MediaIn& in, unsigned int length, Norvane::Buffer& start) {
    start = Norvane::Buffer(static_cast<int>(length), 0);
    start.protect();
    start.length(static_cast<unsigned int>(in.read(start.data(), length)));
    return Norvane::MediaIn(Norvane::makeReference<ResumedSource, Norvane::MediaInImpl>(start, in));
}

Norvane::Buffer Inputs::readAll(const std::string& path, bool secret) {
    Norvane::MediaIn in = open(path);
    return readAll(in, path, secret);
}

Norvane::Buffer Inputs::readAll(Norvane::MediaIn& in, const std::string& path, bool secret) {
    Norvane::Buffer all;
    if (secret)
        all.protect();
    Scratch chunk(65536);
    for (;;) {
        const int count = in.read(chunk.data(), static_cast<unsigned int>(chunk.size()));
        if (count == 0)
            break;
        chunk.used(static_cast<std::size_t>(count));
        if (all.length() + static_cast<unsigned int>(count) > largestInMemory)
            throw Failure(inputName(path) + " is larger than 256 MiB");
        all.append(Norvane::Buffer(chunk.data(), static_cast<unsigned int>(count), true));
    }
    return all;
}

} // namespace norvcrypt
