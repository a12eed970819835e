#include "message/Message.h"

#include <algorithm>
#include <filesystem>
#include <limits>

namespace norvmilter {

namespace {

using Norvane::MediaIn;

/// Bytes in memory, and another source behind them.
class JoinedMediaIn : public Norvane::MediaInImpl {
public:
    JoinedMediaIn(const std::string& first, const MediaIn& second) : m_first(first), m_second(second) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_taken == m_first.size() && m_second.atEnd(); }
    [[nodiscard]] int peek() const override {
        return m_taken < m_first.size() ? static_cast<unsigned char>(m_first[m_taken]) : m_second.peek();
    }
    int read(unsigned char* out, unsigned int length) override {
        const std::size_t fromFirst = std::min<std::size_t>(length, m_first.size() - m_taken);
        std::copy_n(m_first.begin() + static_cast<std::ptrdiff_t>(m_taken), fromFirst, out);
        m_taken += fromFirst;
        const auto got = static_cast<int>(fromFirst);
        const unsigned int left = length - static_cast<unsigned int>(fromFirst);
        return left == 0 ? got : got + m_second.read(out + fromFirst, left);
    }
    [[nodiscard]] unsigned long tell() const override { return m_taken + m_second.tell(); }
    void setpos(unsigned long position) override {
        const std::size_t inFirst = std::min<std::size_t>(position, m_first.size());
        m_second.setpos(position - inFirst);
        m_taken = inFirst;
    }

private:
    std::string m_first;
    std::size_t m_taken = 0;
    MediaIn m_second;
};

char smallLetter(char one) noexcept {
    return one >= 'A' && one <= 'Z' ? static_cast<char>(one - 'A' + 'a') : one;
}

} // namespace

std::string spillTemplateIn(const std::string& folder) {
    const std::filesystem::path where =
        folder.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(folder);
    return (where / "norvcrypt-milter-XXXXXX").string();
}

Norvane::SwapBufferMediaOut spillIn(const std::string& folder) {
    return {keptInMemory, spillTemplateIn(folder).c_str()};
}

bool hasKeyword(std::string_view parameter, std::string_view keyword) {
    return lowered(parameter.substr(0, parameter.find('='))) == lowered(keyword);
}

std::string octetsOf(const HeaderField& field) {
    std::string octets = field.name + ':';
    octets.reserve(octets.size() + field.value.size() + 2);
    for (std::size_t index = 0; index < field.value.size(); ++index) {
        const char one = field.value[index];
        const bool isCrOfLineEnd = one == '\r' && index + 1 < field.value.size() && field.value[index + 1] == '\n';
        if (isCrOfLineEnd)
            continue;
        if (one != '\n') {
            octets += one;
            continue;
        }
        octets += "\r\n";
        const char next = index + 1 < field.value.size() ? field.value[index + 1] : '\0';
        if (next != ' ' && next != '\t')
            octets += ' ';
    }
    return octets + "\r\n";
}

std::string octetsOf(const std::vector<HeaderField>& header) {
    std::string octets;
    for (const HeaderField& field : header)
        octets += octetsOf(field);
    return octets;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), smallLetter);
    return result;
}

std::string_view trimmedName(std::string_view name) noexcept {
    return name.substr(0, name.find_last_not_of(" \t") + 1);
}

std::string comparableName(std::string_view name) {
    return lowered(trimmedName(name));
}

bool isSameName(std::string_view left, std::string_view right) noexcept {
    return std::ranges::equal(trimmedName(left), trimmedName(right), {}, smallLetter, smallLetter);
}

MediaIn joined(const std::string& first, const MediaIn& second) {
    return MediaIn(Norvane::makeReference<JoinedMediaIn, Norvane::MediaInImpl>(first, second));
}

Message::Message(const std::string& spool) : m_body(spillIn(spool)) {}

void Message::addBody(const unsigned char* octets, std::size_t length) {
    constexpr std::size_t most = std::numeric_limits<int>::max();
    for (std::size_t begin = 0; begin < length; begin += most)
        m_body.write(octets + begin, static_cast<unsigned int>(std::min(most, length - begin)));
}

std::uint64_t Message::bodyLength() const {
    return m_body.length();
}

std::uint64_t Message::length() const {
    std::uint64_t length = 2 + bodyLength();
    for (const HeaderField& field : header)
        length += field.name.size() + field.value.size() + 3;
    return length;
}

MediaIn Message::whole() const {
    return joined(octetsOf(header) + "\r\n", body());
}

} // namespace norvmilter
