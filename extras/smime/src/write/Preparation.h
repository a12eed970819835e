#pragma once

/// \file
/// A mail made fit to be signed: every part of it 7-bit and proof against what relays do (RFC 8551, 3.1).

#include "mime/Header.h"
#include "mime/Octets.h"
#include "mime/Values.h"
#include "write/LegacyDisplay.h"
#include "write/TextTraits.h"

#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <string>
#include <string_view>
#include <vector>

namespace Norvane::Crypto::SMime::writing {

/// How the body of a part is written.
enum class Way : int {
    asItIs,        ///< but for its line ends
    quoted,        ///< in quoted-printable
    quotedAnew,    ///< likewise, from such
    base64,        ///< of its lines with CRLF
    base64Exactly, ///< of its bytes
    base64Anew,    ///< from such
    base64Read,    ///< of what the reader of this library makes of malformed quoted-printable
};

/// Walks through a message twice: first it looks, then it writes in the ways that it has chosen.
class Preparation {
public:
    /// \param sevenBitAlone whether a part that must not be changed and is not 7-bit is refused
    /// \param typeParameter of the Content-Type of the message in addition; empty: none
    /// \param further fields that go inside
    /// \param shown what the texts that are shown first begin with (`hiddenFieldsOf`); empty: nothing
    Preparation(const WriteBudget& budget, bool sevenBitAlone, std::string typeParameter, std::string further,
                std::string shown)
        : m_budget(budget),
          m_sevenBitAlone(sevenBitAlone),
          m_parameter(std::move(typeParameter)),
          m_further(std::move(further)),
          m_shown(std::move(shown)) {}

    /// Looks at all of a message, whose header was read already, once. \throws Exception: it cannot be written
    void look(const mime::Header& header, const mime::SharedOctets& body);
    /// Then writes, once, what goes inside: further fields, the Content- fields, the empty line and the body.
    /// \throws Exception: the message is another one than before
    void write(const mime::Header& header, const mime::SharedOctets& body, const MediaOut& target);

private:
    /// What was found of one part.
    struct Part {
        Way way = Way::asItIs;
        bool eightBit = false;       ///< as it will be written; likewise:
        bool eightBitHeader = false; ///< which is of concern to what is around it
        bool preamble = true;        ///< which can be sent; likewise:
        bool epilogue = true;
        TextTraits traits{}; ///< of the body of a leaf
        LegacyDisplay legacy{};
    };
    enum class Kind : int { leaf, sealed, multipart, message };
    /// A part on its way.
    struct Entity {
        const mime::Header& header;
        mime::SharedOctets body;
        std::string path; ///< "1.2"; that of the message is "1"
        std::size_t depth = 0;
        bool ofDigest = false;     ///< a message unless it says otherwise (RFC 2046, 5.1.5)
        bool isShownFirst = false; ///< as the text of the message, or an alternative of it (RFC 9787, "main body part")
    };

    static Kind kindOf(const Entity& entity, const mime::ContentType& type);
    static std::string nameOf(const Entity& entity);

    std::size_t begin(const Entity& entity);
    void walk(const Entity& entity);
    void walkParts(const Entity& entity, const mime::ContentType& type, std::size_t number);
    void walkMessage(const Entity& entity, std::size_t number);
    bool walkFrame(const mime::SharedOctets& octets, bool kept);
    void lookAtLeaf(const Entity& entity, const mime::ContentType& type, Kind kind, std::size_t number);
    void writeLeaf(const Entity& entity, std::size_t number);
    void takeLegacyDisplay(const Entity& entity, std::size_t number, const LegacyDisplay& legacy, bool isFound);
    [[nodiscard]] Way wayOf(const Entity& entity, const mime::ContentType& type, const TextTraits& traits,
                            bool wellQuoted) const;

    [[nodiscard]] std::string headerOf(const Entity& entity, Kind kind, std::size_t number) const;
    void put(std::string_view text);

    WriteBudget m_budget;
    bool m_sevenBitAlone;
    bool m_writing = false;
    MediaOut m_target;
    std::string m_parameter;
    std::string m_further;
    std::string m_shown;
    std::size_t m_shownTexts = 0; ///< that were looked at
    std::vector<Part> m_parts;
    std::size_t m_next = 0;
};

} // namespace Norvane::Crypto::SMime::writing
