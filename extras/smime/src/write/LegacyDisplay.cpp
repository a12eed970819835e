#include "write/LegacyDisplay.h"

#include "mime/Gmime.h"
#include "write/Fields.h"
#include "write/Filters.h"

#include <norvcmsg/Media.h>

#include <algorithm>
#include <array>

namespace Norvane::Crypto::SMime::writing {

namespace {

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

/// In another character set, with a question mark for what it does not have; empty when it is not known, or does not have
/// ASCII as it is.
std::string converted(const std::string& utf8, const std::string& characterSet) {
    const auto convert = [&](const std::string& text) {
        gsize length = 0;
        const mime::GmimeText out(g_convert_with_fallback(text.data(), static_cast<gssize>(text.size()),
                                                          characterSet.c_str(), "UTF-8", "?", nullptr, &length,
                                                          nullptr));
        return out ? std::string(out.get(), length) : std::string();
    };
    const std::string sample = "Aa:\r\n<";
    return convert(sample) == sample ? convert(utf8) : std::string();
}

bool isAttachment(const mime::Header& header) {
    const std::string value = header.first("Content-Disposition").value_or("");
    return mime::isSameName(std::string_view(value).substr(0, value.find_first_of("; \t")), "attachment");
}

class WatchingImpl : public MediaOutImpl {
public:
    explicit WatchingImpl(std::shared_ptr<BodyTag> tag) : m_tag(std::move(tag)) {}
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        static_cast<void>(m_tag->see({reinterpret_cast<const char*>(data), length}));
    }

private:
    std::shared_ptr<BodyTag> m_tag;
};

class InsertingImpl : public MediaOutDecoratorImpl {
public:
    InsertingImpl(const MediaOut& target, const LegacyDisplay& legacy)
        : MediaOutDecoratorImpl(target),
          m_legacy(legacy) {}

    using MediaOutDecoratorImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        std::string_view piece(reinterpret_cast<const char*>(data), length);
        if (!m_legacy.element.empty()) {
            const std::size_t at = m_legacy.isHtml ? m_tag.see(piece) : 0;
            if (at != std::string_view::npos) {
                put(target(), piece.substr(0, at));
                insert();
                piece.remove_prefix(at);
            }
        }
        put(target(), piece);
    }
    void end() override {
        if (!m_legacy.isHtml) {
            insert(); // into a text that has nothing else
        }
        MediaOutDecoratorImpl::end();
    }

private:
    void insert() {
        put(target(), m_legacy.element);
        m_legacy.element.clear();
    }

    LegacyDisplay m_legacy;
    BodyTag m_tag;
};

} // namespace

std::string hiddenFieldsOf(const mime::Header& header) {
    constexpr std::size_t longest = 1000; // it stands in each alternative of the text
    std::string text = mime::decodedText(header.first("Subject").value_or(""));
    constexpr unsigned char firstOfText = ' ';
    constexpr char del = '\x7f';
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < firstOfText || c == del; }, ' ');
    return text.empty() || text.size() > longest ? std::string() : "Subject: " + text + "\r\n";
}

LegacyDisplay legacyDisplayOf(const mime::Header& header, const mime::ContentType& type, const std::string& fields) {
    LegacyDisplay legacy;
    const bool isText = type.is("text", "plain") || type.is("text", "html");
    if (fields.empty() || !isText || isAttachment(header) || mime::transferOf(header) == mime::Transfer::unknown) {
        return legacy;
    }
    legacy.isHtml = type.subtype == "html";
    std::string element = fields + "\r\n";
    if (legacy.isHtml) {
        const std::string lines = escaped(fields.substr(0, fields.size() - 2));
        element = "<div class=\"header-protection-legacy-display\"><pre>" + lines + "</pre></div>\r\n";
    }
    const bool isOfAscii = type.characterSet.empty() || type.characterSet == "us-ascii";
    legacy.becomesUtf8 = isOfAscii && !isSevenBit(element);
    legacy.element = isOfAscii || type.characterSet == "utf-8" ? element : converted(element, type.characterSet);
    return legacy;
}

void BodyTag::step(char c) {
    constexpr std::string_view wanted = "<body";
    constexpr std::string_view remark = "<!--";
    switch (m_state) {
    case State::text:
    case State::opened:
        m_name = m_state == State::text || c == '<' ? "" : m_name;
        m_name += mime::lowered(c);
        m_state = wanted.starts_with(m_name) || remark.starts_with(m_name) ? State::opened : State::text;
        m_state = m_name == wanted ? State::named : m_name == remark ? State::comment : m_state;
        m_dashes = 2; // those of "<!--" may end the remark, too: "<!-->" is a whole one
        break;
    case State::named:
        m_quote = 0;
        m_state = c == '>'                                                           ? State::found
                  : std::string_view(" \t\r\n\f/").find(c) != std::string_view::npos ? State::attributes
                                                                                     : State::text;
        break;
    case State::attributes:
        if (m_quote != 0) {
            m_quote = c == m_quote ? '\0' : m_quote;
        } else if (c == '"' || c == '\'') {
            m_quote = c;
        } else if (c == '>') {
            m_state = State::found;
        }
        break;
    case State::comment:
        m_state = c == '>' && m_dashes >= 2 ? State::text : State::comment;
        m_dashes = c == '-' ? m_dashes + 1 : 0;
        break;
    case State::found:
        break;
    }
}

std::size_t BodyTag::see(std::string_view piece) {
    for (std::size_t at = 0; at < piece.size() && !isFound(); ++at) {
        step(piece[at]);
        if (isFound()) {
            return at + 1;
        }
    }
    return std::string_view::npos;
}

MediaOut watching(const std::shared_ptr<BodyTag>& tag) {
    return MediaOut(makeReference<WatchingImpl, MediaOutImpl>(tag));
}

MediaOut withElement(const MediaOut& target, const LegacyDisplay& legacy) {
    return MediaOut(makeReference<InsertingImpl, MediaOutImpl>(target, legacy));
}

std::string legacyType(const std::string& field, const LegacyDisplay& legacy) {
    std::string changed = field;
    const mime::ContentType before = mime::contentTypeOf(readAgain(field));
    if (legacy.becomesUtf8 && before.characterSet.empty()) {
        changed = withParameter(changed, "charset=utf-8");
    } else if (legacy.becomesUtf8) {
        const mime::GmimeObject<GMimeContentType> parsed(
            g_mime_content_type_parse(nullptr, readAgain(field).first("Content-Type").value_or("").c_str()));
        if (!mime::haveShortNames(g_mime_content_type_get_parameters(parsed.get()))) {
            return "";
        }
        g_mime_content_type_set_parameter(parsed.get(), "charset", "utf-8");
        const mime::GmimeText text(g_mime_content_type_encode(parsed.get(), nullptr));
        changed = innerField("Content-Type", std::string(" ") + (text ? text.get() : ""), "the message");
    }
    changed = withParameter(changed, "hp-legacy-display=\"1\"");
    const mime::ContentType after = mime::contentTypeOf(readAgain(changed));
    const bool isRead = after.hpLegacyDisplay == "1" && after.text() == before.text() &&
                        after.boundary == before.boundary && (!legacy.becomesUtf8 || after.characterSet == "utf-8");
    return isRead ? changed : std::string();
}

} // namespace Norvane::Crypto::SMime::writing
