#pragma once

/// \file
/// What owns the objects of GMime here.

#include <memory>

// Its headers are C of its own style.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#include <gmime/gmime.h>
#pragma GCC diagnostic pop

namespace Norvane::Crypto::SMime::mime {

struct GmimeFreeing {
    void operator()(void* object) const noexcept { g_object_unref(object); }
    void operator()(GMimeParserOptions* options) const noexcept { g_mime_parser_options_free(options); }
    void operator()(char* text) const noexcept { g_free(text); }
};
template <class T> using GmimeObject = std::unique_ptr<T, GmimeFreeing>;
using GmimeOptions = std::unique_ptr<GMimeParserOptions, GmimeFreeing>;
using GmimeText = std::unique_ptr<char, GmimeFreeing>;

/// Starts the library, once in a process. It is never ended: others in the process may use it.
void startGmime();

/// Whether parameters may be given to GMime to encode. With a name of 70 to 72 octets and a long value, GMime 3.2.13 never ends
/// and takes all memory; with one a little shorter, it repeats the name for each few octets of the value.
[[nodiscard]] bool haveShortNames(GMimeParamList* parameters) noexcept;

} // namespace Norvane::Crypto::SMime::mime
