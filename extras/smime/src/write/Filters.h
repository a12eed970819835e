#pragma once

/// \file
/// What a part of a mail goes through on its way out: sinks that pass on what they make of it. Ending one passes on what
/// it holds back and ends its target. They hold a few bytes, and whatever pieces come in, the same bytes go out.

#include <norvcmsg/Media.h>

#include <string_view>

namespace Norvane::Crypto::SMime::writing {

/// What a CR is that no LF follows.
enum class LoneReturn : int {
    lineEnd, ///< the end of a line, as on systems of old
    data,    ///< a byte like any other
};

/// CRLF for every end of a line, which comes as LF, CRLF or (see above) CR.
MediaOut canonicalLineEnds(const MediaOut& target, LoneReturn loneReturn);

/// LF for every CRLF; a CR alone stays.
MediaOut lineFeeds(const MediaOut& target);

/// Base64 (RFC 2045, 6.8) in lines of 76 characters, each ended by CRLF, the last one too.
MediaOut base64Lines(const MediaOut& target);

/// Breaks what is base64 already into lines anew and drops whatever is no letter of it, which readers overlook
/// (RFC 2045, 6.8): the content stays as each of them reads it.
MediaOut base64LinesAnew(const MediaOut& target);

/// Passes everything on, but the end.
MediaOut keptOpen(const MediaOut& target);

/// Writes a text to a stream.
void put(MediaOut& target, std::string_view text);

} // namespace Norvane::Crypto::SMime::writing
