#pragma once

#include "files/Input.h"

#include <optional>
#include <string>
#include <string_view>

namespace norvcrypt {

/// A passphrase, wiped with the object.
class Passphrase {
public:
    Passphrase() = default;
    /// The first line of a file, without its end; none when there is no path. \throws Failure
    Passphrase(Inputs& inputs, const std::optional<std::string>& path);
    ~Passphrase();
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    [[nodiscard]] bool given() const noexcept { return m_given; }
    [[nodiscard]] const std::string& text() const noexcept { return m_text; }
    /// The text, if it was given.
    [[nodiscard]] std::optional<std::string_view> view() const;

    /// What may be odd about it, behind "the passphrase is wrong": " (the line in FILE ends with a blank, which counts)";
    /// empty when nothing is.
    [[nodiscard]] std::string oddity() const;

private:
    std::string m_path;
    std::string m_text;
    bool m_given = false;
};

} // namespace norvcrypt
