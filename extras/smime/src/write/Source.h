#pragma once

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <optional>
#include <string>

namespace Norvane::Crypto::SMime::writing {

/// A message that is read more than once: where it is, or from a copy.
class Source {
public:
    /// \param spillTemplate see `WriteOptions` \throws what reading and keeping the copy throw
    Source(const MediaIn& message, const std::string& spillTemplate);

    /// A stream at the start of the message; the one before it is not to be used any more.
    MediaIn fromStart();

private:
    MediaIn m_message;
    unsigned long m_start = 0;
    std::optional<SwapBufferMediaOut> m_copy;
};

} // namespace Norvane::Crypto::SMime::writing
