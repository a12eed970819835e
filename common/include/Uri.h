#ifndef NORVCMSG_URI_H
#define NORVCMSG_URI_H

/// \file
/// Uniform resource identifiers (RFC 3986).
///
/// \code
/// const Norvane::Uri uri("http://ca.example:8080/list.crl", 31);
/// uri.host(); // "ca.example"
/// uri.port(); // 8080
/// \endcode
///
/// Threads: a value. It may be read by several threads at once, and copies belong to whoever has them.

#include <norvcmsg/Export.h>

#include <string>

namespace Norvane {

/// A parsed URI or relative reference, or null. Nothing is decoded, completed or normalised.
class NORVCMSG_EXPORT Uri {
public:
    /// The null URI.
    Uri();
    /// Reads `length` bytes of text. A text that is malformed, empty or null, or that has a NUL or another byte that
    /// RFC 3986 does not admit, gives the null URI.
    Uri(const char* text, unsigned int length);

    [[nodiscard]] bool isNull() const noexcept { return m_text.empty(); }
    /// The whole text; empty for the null URI, as every part is.
    [[nodiscard]] const std::string& text() const noexcept { return m_text; }
    /// Without the colon; empty for a relative reference.
    [[nodiscard]] const std::string& scheme() const noexcept { return m_scheme; }
    /// What stands before the "@" of the authority.
    [[nodiscard]] const std::string& userInfo() const noexcept { return m_userInfo; }
    /// A name or address; that of an IPv6 or future address without its brackets.
    [[nodiscard]] const std::string& host() const noexcept { return m_host; }
    /// The port, or -1 when there is none or it is above 65535.
    [[nodiscard]] int port() const noexcept { return m_port; }
    /// With its leading slash, if it has one.
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    /// What stands between "?" and "#".
    [[nodiscard]] const std::string& query() const noexcept { return m_query; }
    /// What stands after "#".
    [[nodiscard]] const std::string& fragment() const noexcept { return m_fragment; }

    /// Equal texts.
    bool operator==(const Uri& other) const noexcept { return m_text == other.m_text; }

private:
    std::string m_text;
    std::string m_scheme;
    std::string m_userInfo;
    std::string m_host;
    std::string m_path;
    std::string m_query;
    std::string m_fragment;
    int m_port = -1;
};

} // namespace Norvane

#endif
