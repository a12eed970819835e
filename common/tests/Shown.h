#pragma once

/// \file
/// Parameters of tests whose bytes must not reach the names of tests as they are.

#include <norvcmsg/Escape.h>

#include <ostream>
#include <string>
#include <utility>

/// A text that is listed escaped.
struct Shown {
    Shown(const char* bytes) : text(bytes) {}
    Shown(std::string bytes) : text(std::move(bytes)) {}
    std::string text;
};

inline void PrintTo(const Shown& shown, std::ostream* out) {
    *out << Norvane::escapeForDisplay(shown.text);
}
