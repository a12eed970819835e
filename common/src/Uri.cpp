#include <norvcmsg/Uri.h>

#include <uriparser/Uri.h>

#include <cstring>

namespace Norvane {

namespace {

/// The parser's view of a text, which outlives it.
class Parsed {
public:
    explicit Parsed(const std::string& text)
        : m_good(uriParseSingleUriExA(&m_uri, text.data(), text.data() + text.size(), nullptr) == URI_SUCCESS) {}
    ~Parsed() {
        if (m_good) {
            uriFreeUriMembersA(&m_uri);
        }
    }
    Parsed(const Parsed&) = delete;
    Parsed& operator=(const Parsed&) = delete;

    explicit operator bool() const noexcept { return m_good; }
    const UriUriA* operator->() const noexcept { return &m_uri; }

private:
    UriUriA m_uri{};
    bool m_good;
};

std::string textOf(const UriTextRangeA& range) {
    return range.first == nullptr ? std::string() : std::string(range.first, range.afterLast);
}

std::string pathOf(const Parsed& uri) {
    std::string path;
    const char* separator = uri->absolutePath == URI_TRUE || uri->hostText.first != nullptr ? "/" : "";
    for (const auto* segment = uri->pathHead; segment != nullptr; segment = segment->next) {
        path += separator + textOf(segment->text);
        separator = "/";
    }
    return path.empty() && uri->absolutePath == URI_TRUE ? "/" : path;
}

int portOf(const std::string& text) {
    constexpr int largest = 65535;
    int port = 0;
    for (const char digit : text) {
        port = port * 10 + (digit - '0');
        if (port > largest) {
            return -1;
        }
    }
    return text.empty() ? -1 : port;
}

} // namespace

Uri::Uri() = default;

Uri::Uri(const char* text, unsigned int length) {
    if (text == nullptr || length == 0 || std::memchr(text, '\0', length) != nullptr) {
        return;
    }
    const std::string copy(text, length);
    const Parsed uri(copy);
    if (!uri) {
        return;
    }
    m_scheme = textOf(uri->scheme);
    m_userInfo = textOf(uri->userInfo);
    m_host = textOf(uri->hostText);
    m_port = portOf(textOf(uri->portText));
    m_path = pathOf(uri);
    m_query = textOf(uri->query);
    m_fragment = textOf(uri->fragment);
    m_text = copy;
}

} // namespace Norvane
