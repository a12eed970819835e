#pragma once

/// \file
/// The mails that benchmarks work on: a line of text and an attachment in base64, which makes them as long as is asked.

#include "../Bodies.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace bench {

/// From whom, for the certificate of the material: an S/MIME entity needs it in front to be a mail.
inline constexpr std::string_view mailFields =
    "From: Bench <bench@example.org>\r\nTo: bench@example.org\r\nSubject: bench\r\n";

/// As the encoders of mail programs write it: lines of 76 characters, 256 of them.
inline const std::string& attachmentLines() {
    static const std::string lines = [] {
        constexpr std::size_t octetsOfLine = 57;
        std::string made;
        const std::vector<unsigned char>& octets = body(octetsOfLine * 256);
        for (std::size_t at = 0; at != octetsOfLine * 256; at += octetsOfLine) {
            unsigned char line[octetsOfLine / 3 * 4 + 1];
            const int count = EVP_EncodeBlock(line, octets.data() + at, octetsOfLine);
            made.append(reinterpret_cast<const char*>(line), static_cast<std::size_t>(count)).append("\r\n");
        }
        return made;
    }();
    return lines;
}

/// A mail that nowhere lies as a whole.
class Mail {
public:
    /// \param size as near as whole lines come to it; \param fields whether with those outside of what is signed
    explicit Mail(std::uint64_t size, bool fields = true)
        : m_head(std::string(fields ? mailFields : "") +
                 "MIME-Version: 1.0\r\n"
                 "Content-Type: multipart/mixed; boundary=\"mixed\"\r\n\r\n--mixed\r\n"
                 "Content-Type: text/plain\r\n\r\nsee the attachment\r\n\r\n--mixed\r\n"
                 "Content-Type: application/octet-stream; name=\"bench.bin\"\r\n"
                 "Content-Transfer-Encoding: base64\r\n\r\n") {
        constexpr std::size_t line = 78;
        const std::uint64_t around = m_head.size() + tail.size();
        m_tailAt = m_head.size() + (size > around ? (size - around) / line * line : 0);
    }

    [[nodiscard]] std::uint64_t length() const noexcept { return m_tailAt + tail.size(); }
    /// Some of what stands at a position before the end.
    [[nodiscard]] std::string_view at(std::uint64_t position) const {
        if (position < m_head.size()) {
            return std::string_view(m_head).substr(position);
        }
        if (position >= m_tailAt) {
            return tail.substr(position - m_tailAt);
        }
        const std::string_view lines = attachmentLines();
        return lines.substr((position - m_head.size()) % lines.size()).substr(0, m_tailAt - position);
    }

private:
    static constexpr std::string_view tail = "--mixed--\r\n";

    std::string m_head;
    std::uint64_t m_tailAt;
};

template <class Write> void writeMail(const Mail& mail, Write write) {
    for (std::uint64_t position = 0; position != mail.length();) {
        const std::string_view part = mail.at(position);
        write(part);
        position += part.size();
    }
}

inline std::string mailOf(std::uint64_t size, bool fields = true) {
    std::string text;
    writeMail(Mail(size, fields), [&](std::string_view part) { text.append(part); });
    return text;
}

} // namespace bench
