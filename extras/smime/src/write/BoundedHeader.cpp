#include "write/BoundedHeader.h"

#include "write/Fail.h"

namespace Norvane::Crypto::SMime::writing {

void readBounded(mime::Octets& octets, const WriteBudget& budget, const std::string& where, mime::Header& header) {
    switch (mime::readHeader(octets, {budget.headerOctets, budget.headerFields}, header)) {
    case mime::HeaderEnd::complete:
        return;
    case mime::HeaderEnd::tooLong:
        fail("the header of " + where + " has more than " + std::to_string(budget.headerOctets) + " octets");
    case mime::HeaderEnd::tooMany:
        fail("the header of " + where + " has more than " + std::to_string(budget.headerFields) + " fields");
    }
}

} // namespace Norvane::Crypto::SMime::writing
