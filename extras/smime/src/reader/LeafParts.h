#pragma once

#include "Session.h"

#include "mime/Transfer.h"

#include <memory>

namespace Norvane::Crypto::SMime {

/// A part that goes onto the list of those that hold no others, where that was asked for. Its body is measured while it is
/// taken.
class ListedPart {
public:
    ListedPart(Session& session, const mime::Header& header, const mime::ContentType& type,
               const mime::SharedOctets& body, const Place& place);

    /// The body; to be read instead of the one that was given.
    [[nodiscard]] const mime::SharedOctets& body() const noexcept { return m_body; }
    /// Takes what is left of the body, and notes how long it was.
    void finish();

private:
    class Measured;

    Session& m_session;
    mime::SharedOctets m_body;
    std::shared_ptr<Measured> m_measured; ///< what `m_body` is; none: the part is not listed
    std::size_t m_index = 0;
};

/// As the parts stand in the message: signatures are read before what they are about.
void sortByPath(std::vector<LeafPart>& parts);

} // namespace Norvane::Crypto::SMime
