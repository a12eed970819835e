#pragma once

#include "mime/Header.h"
#include "mime/Values.h"

#include <norvcmsg/Media.h>

#include <memory>
#include <string>
#include <string_view>

namespace Norvane::Crypto::SMime::writing {

/// The fields of a header that stand inside alone and that people are shown, for programs that do not know header protection:
/// lines of UTF-8 (RFC 9788, 5.2.2). Of those that hcp_baseline hides that is the Subject. Empty where there is none.
std::string hiddenFieldsOf(const mime::Header& header);

/// What one text begins with, so that such programs show what is hidden outside (a "legacy display element").
struct LegacyDisplay {
    std::string element; ///< in the text's character set; empty: it begins with nothing
    bool isHtml = false;
    bool becomesUtf8 = false; ///< the text is of ASCII alone, and the element is not
};

/// \param fields `hiddenFieldsOf`
LegacyDisplay legacyDisplayOf(const mime::Header& header, const mime::ContentType& type, const std::string& fields);

/// Finds where the body of a HTML document begins: behind the tag.
class BodyTag {
public:
    /// \returns the offset in this piece behind the tag; npos when it is not there, or was found before
    std::size_t see(std::string_view piece);
    [[nodiscard]] bool isFound() const noexcept { return m_state == State::found; }

private:
    enum class State : int { text, opened, named, attributes, comment, found };
    void step(char c);

    State m_state = State::text;
    std::string m_name;
    char m_quote = 0;
    std::size_t m_dashes = 0;
};

/// A sink that looks for the tag, and for nothing else.
MediaOut watching(const std::shared_ptr<BodyTag>& tag);

/// Puts the element at the start of the text, or of the body of the document, that passes.
MediaOut withElement(const MediaOut& target, const LegacyDisplay& legacy);

/// The Content-Type of such a text, of whose parameters one says so; empty when it cannot be added.
/// \param field as it would be written otherwise
std::string legacyType(const std::string& field, const LegacyDisplay& legacy);

} // namespace Norvane::Crypto::SMime::writing
