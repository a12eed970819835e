#pragma once

/// \file
/// RecipientInfo (RFC 5652, 6.2): the content key, encrypted for one recipient.

#include "CMSStreamWriter/EnvelopeRecipientState.h"
#include "framing/Encoding.h"
#include "openssl/ContentEncryption.h"

namespace Norvane::Crypto::CMS {

struct RecipientInfoElement {
    framing::Encoded encoded;
    unsigned int version = 0;
    bool isPassword = false;
};

/// \param number of the recipient, for the texts of failures: the first one has 1
/// \throws Exception "CMS::EnvelopeWriter"
RecipientInfoElement recipientInfo(const EnvelopeRecipient::State& recipient, std::size_t number,
                                   const openssl::ContentAlgorithm& algorithm, const openssl::Secret& contentKey);

} // namespace Norvane::Crypto::CMS
