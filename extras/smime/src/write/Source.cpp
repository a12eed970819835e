#include "write/Source.h"

#include "mime/SpillPlace.h"

#include <norvcmsg/Exception.h>

namespace Norvane::Crypto::SMime::writing {

namespace {

constexpr unsigned int keptInMemory = 65536;

/// Whether a stream can go back to where it is now.
bool canReturn(MediaIn& stream, unsigned long& position) {
    try {
        position = stream.tell();
        stream.setpos(position);
        return true;
    } catch (const MediaException&) {
        return false;
    }
}

} // namespace

Source::Source(const MediaIn& message, const std::string& spillTemplate) : m_message(message) {
    if (canReturn(m_message, m_start)) {
        return;
    }
    m_copy.emplace(keptInMemory, mime::spillPlace(spillTemplate).c_str());
    m_message.write(*m_copy);
}

MediaIn Source::fromStart() {
    if (m_copy) {
        return m_copy->in();
    }
    m_message.setpos(m_start);
    return m_message;
}

} // namespace Norvane::Crypto::SMime::writing
