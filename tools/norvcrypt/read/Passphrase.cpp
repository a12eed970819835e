#include "read/Passphrase.h"
#include "base/Failure.h"

#include <norvcmsg/Utf8.h>
#include <norvcrypto-keystore/KeyFiles.h>

#include <algorithm>
#include <cstring>

namespace norvcrypt {

using Norvane::Crypto::NVX509::longestPassphrase;

Passphrase::Passphrase(Inputs& inputs, const std::optional<std::string>& path)
    : m_path(path.value_or("")),
      m_given(path.has_value()) {
    if (!path)
        return;
    const Norvane::Buffer content = inputs.readAll(*path, true);
    const unsigned char* const start = content.data();
    const unsigned char* end = std::find(start, start + content.length(), '\n');
    if (end != start && end != start + content.length() && end[-1] == '\r')
        --end;
    if (end - start > longestPassphrase)
        throw Failure("the passphrase in " + inputName(*path) + " is longer than " + std::to_string(longestPassphrase) +
                      " bytes");
    if (std::find(start, end, '\0') != end)
        throw Failure("the passphrase in " + inputName(*path) + " holds a NUL byte");
    // One allocation and no temporary, so that no copy stays behind.
    m_text.reserve(longestPassphrase);
    m_text.assign(reinterpret_cast<const char*>(start), static_cast<std::size_t>(end - start));
}

std::string Passphrase::oddity() const {
    const auto said = [this](const char* what) {
        return " (the first line of " + inputName(m_path) + " " + what + ")";
    };
    const auto isBlank = [](char one) { return one == ' ' || one == '\t' || one == '\r'; };
    if (!m_given)
        return "";
    if (m_text.empty())
        return said("is empty");
    if (isBlank(m_text.back()))
        return said("ends with a blank, which counts");
    if (isBlank(m_text.front()))
        return said("begins with a blank, which counts");
    if (m_text.starts_with("\xEF\xBB\xBF"))
        return said("begins with a byte order mark, which counts");
    if (!Norvane::utf8::isWellFormed(m_text))
        return said("is no UTF-8: whoever made the file may have had it so");
    if (std::ranges::any_of(m_text, [](char one) { return static_cast<unsigned char>(one) > 0x7E; }))
        return said("has letters beyond ASCII, here in UTF-8, which other programs write in other ways");
    return "";
}

Passphrase::~Passphrase() {
    explicit_bzero(m_text.data(), m_text.capacity());
}

std::optional<std::string_view> Passphrase::view() const {
    return m_given ? std::optional<std::string_view>(m_text) : std::nullopt;
}

} // namespace norvcrypt
