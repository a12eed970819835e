#pragma once

/// \file
/// Multiparts for the tests of the reader.

#include <cstddef>
#include <string>

namespace smimetest {

/// With so many texts in it.
inline std::string mixedOf(std::size_t count) {
    std::string mixed = "Content-Type: multipart/mixed; boundary=in\r\n\r\n";
    for (std::size_t number = 0; number != count; ++number)
        mixed += "--in\r\n\r\nx\r\n";
    return mixed + "--in--\r\n";
}

/// What the delimiters of an entity begin with that OpenSSL wrote.
inline std::string boundaryOf(const std::string& entity) {
    const std::size_t at = entity.find("boundary=\"") + 10;
    return "--" + entity.substr(at, entity.find('"', at) - at);
}

} // namespace smimetest
