#pragma once

/// \file
/// A source over octets that somebody else keeps, which `Reader` reads in place.

#include "framing/Elements.h"

#include <norvcmsg/Media.h>

namespace Norvane::Crypto::framing {

class LentMediaIn : public MediaIn {
public:
    /// \param octets must stay as long as the source, or octets that were taken from it
    explicit LentMediaIn(Octets octets);
    ~LentMediaIn() override;
};

/// The octets of a string: its content, or those of its segments (X.690, 8.7.3) put together in `storage`.
/// \throws Broken it is no octet string
Octets octetsOf(const Element& string, std::vector<unsigned char>& storage);

} // namespace Norvane::Crypto::framing
