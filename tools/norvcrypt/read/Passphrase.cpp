#include "read/Passphrase.h"
#include "base/Failure.h"

#include <norvcrypto-keystore/KeyFiles.h>

#include <algorithm>
#include <cstring>

namespace norvcrypt {

using Norvane::Crypto::NVX509::longestPassphrase;

Passphrase::Passphrase(Inputs& inputs, const std::optional<std::string>& path) : m_given(path.has_value()) {
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

Passphrase::~Passphrase() {
    explicit_bzero(m_text.data(), m_text.capacity());
}

std::optional<std::string_view> Passphrase::view() const {
    return m_given ? std::optional<std::string_view>(m_text) : std::nullopt;
}

} // namespace norvcrypt
