#include "Transfer.h"

#include "Gmime.h"
#include "Lines.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::mime {

namespace {

constexpr std::size_t pieceLength = 16384;

/// The body of `decoded`.
class DecodedOctets : public Octets {
public:
    DecodedOctets(SharedOctets body, Transfer transfer) : m_body(std::move(body)), m_decoder(transfer) {}

    std::string_view view(std::size_t atLeast) override {
        if (m_ready.size() - m_from < atLeast && !m_ended) {
            m_ready.erase(0, m_from);
            m_from = 0;
            while (m_ready.size() < atLeast && !m_ended)
                more();
        }
        return std::string_view(m_ready).substr(m_from);
    }
    void skip(std::size_t count) override { m_from += std::min(count, m_ready.size() - m_from); }

private:
    void more() {
        const std::string_view piece = m_body->view(1).substr(0, pieceLength);
        if (piece.empty()) {
            m_decoder.end(m_ready);
            m_ended = true;
            return;
        }
        m_decoder.decode(piece, m_ready);
        m_body->skip(piece.size());
    }

    SharedOctets m_body;
    Decoder m_decoder;
    WipedText m_ready;
    std::size_t m_from = 0;
    bool m_ended = false;
};

class DecodingImpl : public MediaOutDecoratorImpl {
public:
    DecodingImpl(const MediaOut& to, Transfer transfer) : MediaOutDecoratorImpl(to), m_decoder(transfer) {}

    using MediaOutDecoratorImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        std::string_view bytes(reinterpret_cast<const char*>(data), length);
        while (!bytes.empty()) {
            const std::string_view piece = bytes.substr(0, pieceLength);
            m_out.clear();
            m_decoder.decode(piece, m_out);
            put(target(), m_out);
            bytes.remove_prefix(piece.size());
        }
    }
    void end() override {
        m_out.clear();
        m_decoder.end(m_out);
        put(target(), m_out);
        MediaOutDecoratorImpl::end();
    }

private:
    Decoder m_decoder;
    WipedText m_out;
};

class CanonicalImpl : public MediaOutDecoratorImpl {
public:
    explicit CanonicalImpl(const MediaOut& to) : MediaOutDecoratorImpl(to) {}

    using MediaOutDecoratorImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        const std::string_view bytes(reinterpret_cast<const char*>(data), length);
        m_out.clear();
        for (std::size_t from = 0;;) {
            const std::size_t end = std::min(bytes.find('\n', from), bytes.size());
            m_out.append(bytes.substr(from, end - from));
            if (end > from)
                m_afterCr = bytes[end - 1] == '\r';
            if (end == bytes.size())
                break;
            m_out += m_afterCr ? "\n" : "\r\n";
            m_afterCr = false;
            from = end + 1;
        }
        put(target(), m_out);
    }

private:
    WipedText m_out;
    bool m_afterCr = false;
};

/// Takes away the blanks at the ends of lines, which GMime would keep, and with which it finds no soft line break.
class BlankTrimmer {
public:
    void take(std::string_view piece, WipedText& out) {
        while (!piece.empty()) {
            if (m_held.empty()) {
                const std::size_t plain = std::min(piece.find_first_of(" \t\r"), piece.size());
                out.append(piece.substr(0, plain));
                piece.remove_prefix(plain);
                if (piece.empty())
                    return;
            }
            takeByte(piece.front(), out);
            piece.remove_prefix(1);
        }
    }
    void end(WipedText& out) {
        if (m_held.ends_with('\r'))
            out += m_held;
        m_held.clear();
    }

private:
    void takeByte(char byte, WipedText& out) {
        const bool afterReturn = m_held.ends_with('\r');
        if (byte == '\n') {
            out += afterReturn ? "\r\n" : "\n";
            m_held.clear();
            return;
        }
        const bool isBlank = byte == ' ' || byte == '\t';
        if (afterReturn || (!isBlank && byte != '\r') || m_held.size() > mostTrailingBlanks) {
            out += m_held;
            m_held.clear();
        }
        if (isBlank || byte == '\r')
            m_held += byte;
        else
            out += byte;
    }

    WipedText m_held; ///< blanks, and a CR behind them
};

GMimeContentEncoding encodingOf(Transfer transfer) {
    switch (transfer) {
    case Transfer::base64:
        return GMIME_CONTENT_ENCODING_BASE64;
    case Transfer::quotedPrintable:
        return GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE;
    case Transfer::identity:
    case Transfer::unknown:
        break;
    }
    return GMIME_CONTENT_ENCODING_DEFAULT;
}

} // namespace

struct Decoder::State {
    State() = default;
    ~State() { explicit_bzero(&encoding, sizeof encoding); } // it holds octets back
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    GMimeEncoding encoding{};
    bool isBase64 = false;
    BlankTrimmer trimmer; ///< of quoted-printable
    WipedText trimmed;

    void step(std::string_view piece, WipedText& out) {
        const std::size_t before = out.size();
        out.resize(before + g_mime_encoding_outlen(&encoding, piece.size()));
        out.resize(before + g_mime_encoding_step(&encoding, piece.data(), piece.size(), out.data() + before));
    }
};

Decoder::Decoder(Transfer transfer) {
    if (transfer == Transfer::identity || transfer == Transfer::unknown)
        return;
    startGmime();
    m_state = std::make_unique<State>();
    m_state->isBase64 = transfer == Transfer::base64;
    g_mime_encoding_init_decode(&m_state->encoding, encodingOf(transfer));
}

Decoder::~Decoder() = default;

void Decoder::decode(std::string_view piece, WipedText& out) {
    if (!m_state) {
        out.append(piece);
        return;
    }
    if (m_state->isBase64) {
        m_state->step(piece, out);
        return;
    }
    m_state->trimmed.clear();
    m_state->trimmer.take(piece, m_state->trimmed);
    m_state->step(m_state->trimmed, out);
}

void Decoder::end(WipedText& out) {
    if (!m_state)
        return;
    if (m_state->isBase64) {
        m_state->step("==", out); // what is missing where padding was left out, and nothing otherwise
        return;
    }
    m_state->trimmed.clear();
    m_state->trimmer.end(m_state->trimmed);
    m_state->step(m_state->trimmed, out);
}

SharedOctets decoded(const SharedOctets& body, Transfer transfer) {
    if (transfer == Transfer::identity || transfer == Transfer::unknown)
        return body;
    return std::make_shared<DecodedOctets>(body, transfer);
}

DecodingMediaOut::DecodingMediaOut(const MediaOut& target, Transfer transfer)
    : MediaOut(makeReference<DecodingImpl, MediaOutImpl>(target, transfer)) {}
DecodingMediaOut::~DecodingMediaOut() = default;

void LineEndCounter::update(std::string_view piece) noexcept {
    if (m_afterCr && !piece.empty()) {
        m_afterCr = false;
        ++(piece.front() == '\n' ? m_counted.crLf : m_counted.bareCr);
        piece.remove_prefix(piece.front() == '\n' ? 1 : 0);
    }
    const std::string_view whole = piece.substr(0, piece.size() - (piece.ends_with('\r') ? 1 : 0));
    if (isCanonical(whole)) {
        m_counted.crLf += countOf('\n', whole);
        m_afterCr = m_afterCr || piece.size() != whole.size();
        return;
    }
    while (!piece.empty()) {
        const std::size_t end = piece.find('\n');
        std::string_view line = piece.substr(0, end);
        const bool endsInCr = line.ends_with('\r');
        line.remove_suffix(endsInCr ? 1 : 0);
        for (std::size_t cr = line.find('\r'); cr != std::string_view::npos; cr = line.find('\r', cr + 1))
            ++m_counted.bareCr;
        if (end == std::string_view::npos) {
            m_afterCr = endsInCr;
            return;
        }
        ++(endsInCr ? m_counted.crLf : m_counted.bareLf);
        piece.remove_prefix(end + 1);
    }
}

LineEnds LineEndCounter::counted() const noexcept {
    LineEnds result = m_counted;
    result.bareCr += m_afterCr ? 1 : 0;
    return result;
}

CanonicalMediaOut::CanonicalMediaOut(const MediaOut& target)
    : MediaOut(makeReference<CanonicalImpl, MediaOutImpl>(target)) {}
CanonicalMediaOut::~CanonicalMediaOut() = default;

} // namespace Norvane::Crypto::SMime::mime
