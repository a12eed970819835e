#pragma once

#include "Session.h"

#include <norvcrypto/CMSSignedReader.h>

namespace Norvane::Crypto::SMime {

/// Signed data, whose layer is there; throws what its reader throws.
void readOpaque(Session& session, std::size_t index, const mime::SharedOctets& octets, const Place& place);
/// Judges the signers of signed data whose content was read.
void judgeOpaque(Session& session, std::size_t index, const CMS::SignedReader& reader);
/// Puts the verdicts into a layer.
void takeSigners(Layer& layer, std::vector<LayerSigner> signers, const CMS::SignedReader& reader);

} // namespace Norvane::Crypto::SMime
