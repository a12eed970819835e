#include "LeafParts.h"

namespace Norvane::Crypto::SMime {

Answer read(const MediaIn& message, MediaOut& content, const ReadOptions& options) {
    Session session(options, content);
    const auto octets = std::make_shared<mime::MediaOctets>(guarded(session, message));
    readEntity(session, octets, Place());
    mime::drain(*octets);
    conclude(session);
    sortByPath(session.answer.parts);
    return std::move(session.answer);
}

} // namespace Norvane::Crypto::SMime
