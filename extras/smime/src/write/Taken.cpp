#include "write/Taken.h"

#include "write/Fail.h"
#include "write/Filters.h"

namespace Norvane::Crypto::SMime::writing {

TextTraits taken(mime::Octets& octets, MediaOut* target, QuotedPrintableCheck* check) {
    TextTraits traits;
    for (std::string_view piece = octets.view(1); !piece.empty(); piece = octets.view(1)) {
        traits.see(piece);
        if (check != nullptr) {
            check->see(piece);
        }
        if (target != nullptr) {
            put(*target, piece);
        }
        octets.skip(piece.size());
    }
    traits.end();
    if (check != nullptr) {
        check->end();
    }
    if (target != nullptr) {
        target->end();
    }
    return traits;
}

void failChanged() {
    fail("the message changed while it was read");
}

} // namespace Norvane::Crypto::SMime::writing
