#include "Session.h"

namespace Norvane::Crypto::SMime {

Answer read(const MediaIn& message, MediaOut& content, const ReadOptions& options) {
    Session session(options, content);
    const auto octets = std::make_shared<mime::MediaOctets>(guarded(session, message));
    readEntity(session, octets, Place());
    mime::drain(*octets);
    conclude(session);
    return std::move(session.answer);
}

} // namespace Norvane::Crypto::SMime
