#include "write/Filters.h"

#include "mime/Lines.h"
#include "mime/Wiped.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

namespace Norvane::Crypto::SMime::writing {

namespace {

constexpr std::size_t base64LineLength = 76;

/// A filter that makes its output of a piece in a text, which goes on in one write.
class GatheringImpl : public MediaOutDecoratorImpl {
public:
    using MediaOutDecoratorImpl::MediaOutDecoratorImpl;
    using MediaOutDecoratorImpl::write;

    void write(const unsigned char* data, unsigned int length) override {
        // In pieces, so that what is gathered stays small whatever comes in.
        while (length != 0) {
            const unsigned int count = std::min(length, 16384U);
            take({reinterpret_cast<const char*>(data), count});
            pass();
            data += count;
            length -= count;
        }
    }
    void end() override {
        finish();
        pass();
        MediaOutDecoratorImpl::end();
    }

protected:
    virtual void take(std::string_view piece) = 0;
    virtual void finish() = 0;
    mime::WipedText& gathered() noexcept { return m_gathered; }

private:
    void pass() {
        writing::put(target(), m_gathered); // there is one in `mime`, too
        m_gathered.clear();
    }

    mime::WipedText m_gathered;
};

class CanonicalImpl : public GatheringImpl {
public:
    CanonicalImpl(const MediaOut& target, LoneReturn loneReturn)
        : GatheringImpl(target),
          m_loneReturn(loneReturn == LoneReturn::lineEnd ? "\r\n" : "\r") {}

    using GatheringImpl::write;
    /// What is right already, as mail on its way is, goes on as it stands.
    void write(const unsigned char* data, unsigned int length) override {
        std::string_view piece(reinterpret_cast<const char*>(data), length);
        if (m_afterReturn && piece.starts_with('\n')) {
            m_afterReturn = false;
            writing::put(target(), "\r\n");
            piece.remove_prefix(1);
        }
        const bool endsInReturn = piece.ends_with('\r');
        const std::string_view whole = piece.substr(0, piece.size() - (endsInReturn ? 1 : 0));
        if (!m_afterReturn && mime::isCanonical(whole)) {
            writing::put(target(), whole);
            m_afterReturn = endsInReturn;
            return;
        }
        GatheringImpl::write(reinterpret_cast<const unsigned char*>(piece.data()),
                             static_cast<unsigned int>(piece.size()));
    }

protected:
    void take(std::string_view piece) override {
        if (m_afterReturn) {
            m_afterReturn = false;
            const bool isPair = piece.front() == '\n';
            gathered() += isPair ? "\r\n" : m_loneReturn;
            piece.remove_prefix(isPair ? 1 : 0);
        }
        const bool hasReturns = piece.find('\r') != std::string_view::npos;
        while (!piece.empty()) {
            const std::size_t end = piece.find('\n');
            std::string_view line = piece.substr(0, end);
            // A last one may belong to the line end.
            for (std::size_t cr = hasReturns ? line.find('\r') : std::string_view::npos;
                 cr != std::string_view::npos && cr + 1 != line.size(); cr = line.find('\r')) {
                gathered().append(line.substr(0, cr)).append(m_loneReturn);
                line.remove_prefix(cr + 1);
            }
            const bool endsInReturn = line.ends_with('\r');
            gathered().append(line.substr(0, line.size() - (endsInReturn ? 1 : 0)));
            if (end == std::string_view::npos) {
                m_afterReturn = endsInReturn;
                return;
            }
            gathered() += "\r\n";
            piece.remove_prefix(end + 1);
        }
    }
    void finish() override {
        if (m_afterReturn) {
            gathered() += m_loneReturn;
            m_afterReturn = false;
        }
    }

private:
    std::string_view m_loneReturn;
    bool m_afterReturn = false;
};

class LineFeedsImpl : public GatheringImpl {
public:
    using GatheringImpl::GatheringImpl;

protected:
    void take(std::string_view piece) override {
        if (m_afterReturn && !piece.empty()) {
            m_afterReturn = false;
            if (piece.front() != '\n') {
                gathered() += '\r';
            }
        }
        while (!piece.empty()) {
            const std::size_t end = piece.find('\n');
            const std::string_view line = piece.substr(0, end);
            const bool endsInReturn = line.ends_with('\r');
            gathered().append(line.substr(0, line.size() - (endsInReturn ? 1 : 0)));
            if (end == std::string_view::npos) {
                m_afterReturn = endsInReturn;
                return;
            }
            gathered() += '\n';
            piece.remove_prefix(end + 1);
        }
    }
    void finish() override {
        if (m_afterReturn) {
            gathered() += '\r';
            m_afterReturn = false;
        }
    }

private:
    bool m_afterReturn = false;
};

class Base64Impl : public GatheringImpl {
public:
    using GatheringImpl::GatheringImpl;
    ~Base64Impl() override { explicit_bzero(m_line.data(), m_line.size()); }
    Base64Impl(const Base64Impl&) = delete;
    Base64Impl& operator=(const Base64Impl&) = delete;

protected:
    void take(std::string_view piece) override {
        if (m_held != 0) {
            const std::size_t count = std::min(piece.size(), m_line.size() - m_held);
            piece.copy(m_line.data() + m_held, count);
            m_held += count;
            piece.remove_prefix(count);
            if (m_held < m_line.size()) {
                return;
            }
            writeLines({m_line.data(), m_held});
        }
        writeLines(piece.substr(0, piece.size() / m_line.size() * m_line.size()));
        piece.remove_prefix(piece.size() / m_line.size() * m_line.size());
        m_held = piece.copy(m_line.data(), piece.size());
    }
    void finish() override {
        if (m_held != 0) {
            writeLines({m_line.data(), m_held});
            m_held = 0;
        }
    }

private:
    /// The last one may be shorter.
    void writeLines(std::string_view octets) {
        const std::size_t before = gathered().size();
        const std::size_t lines = (octets.size() + m_line.size() - 1) / m_line.size();
        gathered().resize(before + lines * (base64LineLength + 2)); // OpenSSL writes a NUL behind each
        char* to = gathered().data() + before;
        for (; !octets.empty(); octets.remove_prefix(std::min(octets.size(), m_line.size()))) {
            const std::size_t count = std::min(octets.size(), m_line.size());
            to += EVP_EncodeBlock(reinterpret_cast<unsigned char*>(to),
                                  reinterpret_cast<const unsigned char*>(octets.data()), static_cast<int>(count));
            *to++ = '\r';
            *to++ = '\n';
        }
        gathered().resize(static_cast<std::size_t>(to - gathered().data()));
    }

    std::array<char, base64LineLength / 4 * 3> m_line{};
    std::size_t m_held = 0;
};

class Base64AnewImpl : public GatheringImpl {
public:
    using GatheringImpl::GatheringImpl;

protected:
    void take(std::string_view piece) override {
        for (const char byte : piece) {
            if (!isLetter(byte)) {
                continue;
            }
            gathered() += byte;
            if (++m_column == base64LineLength) {
                finish();
            }
        }
    }
    void finish() override {
        if (m_column != 0) {
            gathered() += "\r\n";
            m_column = 0;
        }
    }

private:
    static bool isLetter(char byte) noexcept {
        return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
               byte == '+' || byte == '/' || byte == '=';
    }

    std::size_t m_column = 0;
};

class KeptOpenImpl : public MediaOutDecoratorImpl {
public:
    using MediaOutDecoratorImpl::MediaOutDecoratorImpl;
    void end() override {}
};

} // namespace

MediaOut canonicalLineEnds(const MediaOut& target, LoneReturn loneReturn) {
    return MediaOut(makeReference<CanonicalImpl, MediaOutImpl>(target, loneReturn));
}

MediaOut lineFeeds(const MediaOut& target) {
    return MediaOut(makeReference<LineFeedsImpl, MediaOutImpl>(target));
}

MediaOut base64Lines(const MediaOut& target) {
    return MediaOut(makeReference<Base64Impl, MediaOutImpl>(target));
}

MediaOut base64LinesAnew(const MediaOut& target) {
    return MediaOut(makeReference<Base64AnewImpl, MediaOutImpl>(target));
}

MediaOut keptOpen(const MediaOut& target) {
    return MediaOut(makeReference<KeptOpenImpl, MediaOutImpl>(target));
}

void put(MediaOut& target, std::string_view text) {
    constexpr std::size_t most = std::numeric_limits<unsigned int>::max();
    while (!text.empty()) {
        const std::size_t count = std::min(text.size(), most);
        target.write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(count));
        text.remove_prefix(count);
    }
}

} // namespace Norvane::Crypto::SMime::writing
