#include "CMSStreamReader/EnvelopeContent.h"

#include "CMS/TemporaryFile.h"
#include "CMSStreamReader/AuthenticatedAttributes.h"
#include "framing/LentMediaIn.h"
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace Norvane::Crypto::CMS {

using framing::Broken;
using framing::Fault;
using framing::Octets;

namespace {

/// Content up to this length is decrypted once, and kept until it is known to be authentic.
constexpr std::uint64_t s_atOnce = 0x10000;
constexpr unsigned int s_spillInMemory = 0x10000;
/// What is written to the file and read from it at once: in pieces of 16 KB it takes nearly twice as long.
constexpr std::size_t s_spillPiece = 0x40000;
constexpr std::size_t s_unlimited = std::numeric_limits<std::size_t>::max();

[[noreturn]] void fail() {
    throw Broken(Fault::malformed);
}

/// Takes `count` octets at most from the front.
Octets takeFront(Octets& octets, std::size_t count) {
    const Octets front = octets.first(std::min(octets.size(), count));
    octets = octets.subspan(front.size());
    return front;
}

} // namespace

EnvelopeContent::~EnvelopeContent() = default;

void EnvelopeContent::spillTo(const std::string& /*fileTemplate*/) {
    // Nothing is kept that could go to a file.
}

StreamedContent::StreamedContent(EnvelopeFraming& frame, std::size_t tailLimit,
                                 openssl::CipherContextPtr context) noexcept
    : EnvelopeContent(frame, tailLimit),
      m_context(std::move(context)) {}

StreamedContent::~StreamedContent() = default;

void StreamedContent::start(const openssl::WipedBytes& contentKey, bool uncertain) {
    const openssl::ErrorMark mark;
    if (openssl::setContentKey(m_context.get(), contentKey, m_trusted)) {
        m_decryption.emplace(m_context.get());
    } else {
        mark.throwWithoutMemory();
    }
    // Under the random key, which stands in for one of another length too, one padding in 256 is a good one. That is hidden where
    // the sender could learn whether the key opened, which with a padding of PKCS#1 1.5 decrypts it for him; elsewhere garbage
    // would be taken for the message.
    m_trusted =
        m_trusted && (uncertain || std::cmp_equal(contentKey.size(), EVP_CIPHER_CTX_get_key_length(m_context.get())));
}

Octets StreamedContent::next() {
    if (!m_decryption) {
        fail();
    }
    if (m_piece.empty()) {
        m_piece = frame().piece();
    }
    if (!m_piece.empty()) {
        const auto clear = m_decryption->update(takeFront(m_piece, openssl::PaddedDecryption::s_pieceLength));
        if (!clear) {
            ERR_clear_error(); // which no message brings about; a mark for each piece is dearer than all around it
            fail();
        }
        return *clear;
    }
    frame().readTail(tailLimit());
    const auto rest = m_decryption->finish();
    if (!rest || !m_trusted) {
        fail();
    }
    complete();
    return *rest;
}

/// The encrypted content from its beginning, once more.
class AuthenticatedContent::Pieces {
public:
    /// Of a message in memory, which was found to be well-formed before.
    explicit Pieces(Octets message) : m_frame(std::in_place, framing::LentMediaIn(message)) {
        m_frame->readHead(s_unlimited);
    }
    Pieces(const SwapBufferMediaOut& spill, std::uint64_t length)
        : m_spill(spill.in()),
          m_buffer(static_cast<std::size_t>(std::min<std::uint64_t>(length, s_spillPiece))) {}

    /// The next octets, `s_pieceLength` at most; none at the end.
    Octets next() {
        if (m_piece.empty() && m_frame) {
            m_piece = m_frame->piece();
        } else if (m_piece.empty()) {
            const int count = m_spill.read(m_buffer.data(), static_cast<unsigned int>(m_buffer.size()));
            m_piece = {m_buffer.data(), static_cast<std::size_t>(std::max(count, 0))};
        }
        return takeFront(m_piece, s_pieceLength);
    }

private:
    std::optional<EnvelopeFraming> m_frame;
    Octets m_piece;
    MediaIn m_spill;
    std::vector<unsigned char> m_buffer;
};

AuthenticatedContent::AuthenticatedContent(EnvelopeFraming& frame, std::size_t tailLimit,
                                           // cppcheck-suppress passedByValue ; it is moved from
                                           openssl::AuthenticatedCipher cipher, Octets source,
                                           std::uint64_t spillLimit) noexcept
    : EnvelopeContent(frame, tailLimit),
      m_cipher(std::move(cipher)),
      m_source(source),
      m_spillLimit(spillLimit) {}

AuthenticatedContent::~AuthenticatedContent() = default;

unsigned char* AuthenticatedContent::scratch() {
    if (m_scratch.empty()) {
        m_scratch = openssl::WipedBytes(s_pieceLength + EVP_MAX_BLOCK_LENGTH);
    }
    return m_scratch.data();
}

Octets AuthenticatedContent::decrypt(EVP_CIPHER_CTX* context, Octets encrypted) {
    const openssl::ErrorMark mark;
    int count = 0;
    if (EVP_DecryptUpdate(context, scratch(), &count, encrypted.data(), static_cast<int>(encrypted.size())) != 1) {
        fail();
    }
    return {scratch(), static_cast<std::size_t>(count)};
}

void AuthenticatedContent::start(const openssl::WipedBytes& contentKey, bool /*uncertain*/) {
    m_usable = m_cipher.start(contentKey);
}

/// Passes the content, which is kept unless it lies in memory, and reads what is behind it.
void AuthenticatedContent::keep() {
    if (m_source.empty()) {
        m_spill.emplace(s_spillInMemory, temporaryFile(m_template).c_str());
    }
    std::vector<unsigned char> gathered;
    const auto pass = [&] {
        m_spill->write(gathered.data(), static_cast<unsigned int>(gathered.size()));
        gathered.clear();
    };
    for (Octets piece = frame().piece(); !piece.empty(); piece = frame().piece()) {
        m_length += piece.size();
        if (!m_spill) {
            continue;
        }
        if (m_length > m_spillLimit) {
            throw SpillTooLong();
        }
        if (m_check && !m_check->update(piece)) {
            fail();
        }
        gathered.insert(gathered.end(), piece.begin(), piece.end()); // never longer than a window
        if (gathered.size() >= s_spillPiece) {
            pass();
        }
    }
    if (!gathered.empty()) {
        pass();
    }
    frame().readTail(tailLimit());
}

/// Decrypts all of a small content, which so is decrypted only once.
void AuthenticatedContent::verifyAtOnce(Pieces& pieces, EVP_CIPHER_CTX* context) {
    const openssl::ErrorMark mark;
    m_atOnce = openssl::WipedBytes(static_cast<std::size_t>(m_length) + EVP_MAX_BLOCK_LENGTH);
    std::size_t at = 0;
    for (Octets piece = pieces.next(); !piece.empty(); piece = pieces.next()) {
        int count = 0;
        if (piece.size() > m_length - at || EVP_DecryptUpdate(context, m_atOnce.data() + at, &count, piece.data(),
                                                              static_cast<int>(piece.size())) != 1) {
            fail();
        }
        at += static_cast<std::size_t>(count);
    }
    m_atOnce.shorten(at);
}

std::unique_ptr<AuthenticatedContent::Pieces> AuthenticatedContent::fromTheBeginning() const {
    return m_spill ? std::make_unique<Pieces>(*m_spill, m_length) : std::make_unique<Pieces>(m_source);
}

/// Checks the tag without decrypting: of what is in memory now, else it went along with what was kept.
bool AuthenticatedContent::isChecked(Octets associated) {
    if (!m_spill) {
        const auto pieces = fromTheBeginning();
        for (Octets piece = pieces->next(); !piece.empty(); piece = pieces->next()) {
            if (!m_check->update(piece)) {
                return false;
            }
        }
    }
    const Octets tag = frame().tag();
    return tag.size() == m_cipher.tagLength() && m_check->isRight(associated, tag);
}

bool AuthenticatedContent::isDecrypted(Octets associated) {
    const openssl::CipherContextPtr context = m_cipher.verifying(associated);
    if (context == nullptr) {
        return false;
    }
    const auto pieces = fromTheBeginning();
    if (m_length <= s_atOnce) {
        verifyAtOnce(*pieces, context.get());
    } else {
        for (Octets piece = pieces->next(); !piece.empty(); piece = pieces->next()) {
            decrypt(context.get(), piece);
        }
    }
    return m_cipher.isRight(context.get(), frame().tag());
}

void AuthenticatedContent::verify() {
    m_check = m_cipher.check();
    keep();
    std::vector<unsigned char> associated;
    if (!authenticatedAttributes(frame(), associated) ||
        !(m_check && m_length > s_atOnce ? isChecked(associated) : isDecrypted(associated))) {
        fail();
    }
    m_check.reset();
    m_verified = true;
    if (m_length > s_atOnce) {
        m_pieces = fromTheBeginning();
        m_context = m_cipher.verified();
        if (m_context == nullptr) {
            fail();
        }
    }
}

Octets AuthenticatedContent::next() {
    if (!m_usable) {
        fail();
    }
    if (!m_verified) {
        verify();
    }
    if (m_pieces == nullptr) {
        complete();
        return m_atOnce.octets();
    }
    const Octets piece = m_pieces->next();
    if (piece.empty()) {
        complete();
        return {};
    }
    return decrypt(m_context.get(), piece);
}

} // namespace Norvane::Crypto::CMS
