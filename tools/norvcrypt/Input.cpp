#include "Input.h"
#include "Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

namespace norvcrypt {

namespace {

constexpr unsigned int largestInMemory = 1U << 28U;

/// Reads a descriptor through a buffer of fixed size.
class DescriptorSource : public Norvane::MediaInImpl {
public:
    DescriptorSource(int descriptor, std::string name, Progress* progress)
        : m_descriptor(descriptor),
          m_name(std::move(name)),
          m_progress(progress) {}
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
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_bytes[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        unsigned int done = 0;
        while (done < length && !atEnd()) {
            const auto count = std::min<std::size_t>(length - done, m_end - m_at);
            std::memcpy(out + done, m_bytes.data() + m_at, count);
            m_at += count;
            done += static_cast<unsigned int>(count);
        }
        return static_cast<int>(done);
    }

private:
    void fill() const {
        if (m_at != m_end || m_ended)
            return;
        ssize_t count = 0;
        do
            count = ::read(m_descriptor, m_bytes.data(), m_bytes.size());
        while (count < 0 && errno == EINTR);
        if (count < 0)
            throw Failure("cannot read " + m_name, errno);
        m_ended = count == 0;
        m_at = 0;
        m_end = static_cast<std::size_t>(count);
        if (m_progress != nullptr)
            m_progress->advance(m_end);
    }

    int m_descriptor;
    std::string m_name;
    Progress* m_progress;
    mutable std::array<unsigned char, 65536> m_bytes{};
    mutable std::size_t m_at = 0;
    mutable std::size_t m_end = 0;
    mutable bool m_ended = false;
};

} // namespace

std::string inputName(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

Norvane::MediaIn Inputs::open(const std::string& path, Progress* progress) {
    int descriptor = STDIN_FILENO;
    if (path != "-") {
        descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (descriptor < 0)
            throw Failure("cannot open " + path, errno);
    } else if (std::exchange(m_standardInputTaken, true)) {
        throw Failure("standard input can be read only once");
    }
    struct stat status {};
    if (progress != nullptr && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        progress->expect(static_cast<std::uint64_t>(status.st_size));
    return Norvane::MediaIn(
        Norvane::makeReference<DescriptorSource, Norvane::MediaInImpl>(descriptor, inputName(path), progress));
}

Norvane::Buffer Inputs::readAll(const std::string& path, bool secret) {
    Norvane::MediaIn in = open(path);
    return readAll(in, path, secret);
}

Norvane::Buffer Inputs::readAll(Norvane::MediaIn& in, const std::string& path, bool secret) {
    Norvane::Buffer all;
    if (secret)
        all.protect();
    std::array<unsigned char, 65536> chunk{};
    for (;;) {
        const int count = in.read(chunk.data(), chunk.size());
        if (count == 0)
            break;
        if (all.length() + static_cast<unsigned int>(count) > largestInMemory)
            throw Failure(inputName(path) + " is larger than 256 MiB");
        all.append(Norvane::Buffer(chunk.data(), static_cast<unsigned int>(count), true));
    }
    if (secret)
        OPENSSL_cleanse(chunk.data(), chunk.size());
    return all;
}

} // namespace norvcrypt
