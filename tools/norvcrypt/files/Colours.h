#pragma once

#include <string>

namespace norvcrypt {

/// Colours on standard output: where that is a terminal, unless the environment says that none are wanted (NO_COLOR with
/// any text in it, or TERM=dumb). Elsewhere texts stay as they are.
class Colours {
public:
    Colours();

    [[nodiscard]] std::string good(const std::string& text) const { return inColour("32", text); }     ///< green
    [[nodiscard]] std::string bad(const std::string& text) const { return inColour("1;31", text); }    ///< bold red
    [[nodiscard]] std::string doubtful(const std::string& text) const { return inColour("33", text); } ///< yellow

private:
    [[nodiscard]] std::string inColour(const char* colour, const std::string& text) const;

    bool m_wanted;
};

} // namespace norvcrypt
