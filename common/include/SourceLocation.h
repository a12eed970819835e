#ifndef NORVCMSG_SOURCE_LOCATION_H
#define NORVCMSG_SOURCE_LOCATION_H

/// \file
/// The place of a call: `std::source_location`, or as much of it as is used here where the compiler lacks it (clang
/// 14).

#include <source_location>

namespace Norvane {

#ifdef __cpp_lib_source_location
using SourceLocation = std::source_location;
#else
class SourceLocation {
public:
    /// As a default argument, the line of the call.
    static constexpr SourceLocation current(unsigned int line = __builtin_LINE()) noexcept {
        return SourceLocation(line);
    }
    [[nodiscard]] constexpr unsigned int line() const noexcept { return m_line; }

private:
    constexpr explicit SourceLocation(unsigned int line) noexcept : m_line(line) {}
    unsigned int m_line;
};
#endif

} // namespace Norvane

#endif
