#pragma once

/// \file
/// Transfer encodings taken off (RFC 2045, 6), by GMime, and line ends made canonical (RFC 8551, 3.1.1): while the bytes
/// pass, in either direction.

#include "Octets.h"
#include "Values.h"

#include <memory>

namespace Norvane::Crypto::SMime::mime {

/// Takes an encoding off, piece by piece. Bytes that do not belong to it are left out as mail clients do: garbage in base64;
/// a base64 text ends at its first "=", and one without its last padding counts as padded. Blanks at the ends of lines of
/// quoted-printable, which mail systems added, go (RFC 2045, 6.7, rule 3); an "=" that begins neither an octet nor a soft
/// line break means itself.
class Decoder {
public:
    explicit Decoder(Transfer transfer);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    /// Appends what a piece gives.
    void decode(std::string_view piece, WipedText& out);
    /// Appends what was held back.
    void end(WipedText& out);

private:
    struct State;
    std::unique_ptr<State> m_state; ///< none: the bytes pass as they are
};

/// How many blanks at the end of a line of quoted-printable are looked for: more than a line may have in all.
inline constexpr std::size_t mostTrailingBlanks = 76;

/// The body of an entity with its encoding taken off, to be read.
[[nodiscard]] SharedOctets decoded(const SharedOctets& body, Transfer transfer);

/// A sink that takes an encoding off and hands on what comes out. Ending it ends the target.
class DecodingMediaOut : public MediaOut {
public:
    DecodingMediaOut(const MediaOut& target, Transfer transfer);
    ~DecodingMediaOut() override;
};

/// Which line ends a text has.
struct LineEnds {
    std::uint64_t crLf = 0;
    std::uint64_t bareLf = 0;
    std::uint64_t bareCr = 0;
};

/// Counts line ends as the bytes pass in pieces.
class LineEndCounter {
public:
    void update(std::string_view piece) noexcept;
    /// Of what has passed; a CR at its end is a bare one.
    [[nodiscard]] LineEnds counted() const noexcept;

private:
    LineEnds m_counted;
    bool m_afterCr = false;
};

/// A sink that makes CRLF of each LF without a CR and hands on all else as it is: a CR that stands alone is left alone.
/// Ending it ends the target.
class CanonicalMediaOut : public MediaOut {
public:
    explicit CanonicalMediaOut(const MediaOut& target);
    ~CanonicalMediaOut() override;
};

} // namespace Norvane::Crypto::SMime::mime
