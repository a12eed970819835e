#pragma once

#include "mime/Header.h"

#include <string>

namespace Norvane::Crypto::SMime::writing {

/// The header of a message in two: what stands outside, and what protection adds inside.
struct DividedHeader {
    std::string outside;       ///< fields with CRLF, without those that describe the body
    std::string inside;        ///< likewise; empty without protection
    std::string typeParameter; ///< hp="clear" or hp="cipher"; empty without protection
};

/// Divides a header for a message that is sent as it is.
DividedHeader divided(const mime::Header& header);

/// Divides a header with protection (RFC 9788, 4 and 5.2). \param encrypts whether the policy hcp_baseline hides fields
/// \throws Exception: a field cannot be written in 7 bits, or is too long
DividedHeader dividedWithProtection(const mime::Header& header, bool encrypts);

} // namespace Norvane::Crypto::SMime::writing
