#pragma once

#include "openssl/GeneralNames.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/Key.h>

#include <string>
#include <vector>

namespace norvcrypt {

/// What a certificate request (RFC 2986) says. Texts as in CertificateDetails.h.
struct RequestDetails {
    std::string subject; ///< as the library shows names
    Norvane::Crypto::RefKey key;
    std::string signatureAlgorithm;
    bool signedWithItsKey = false; ///< whoever made it has the key
    AlternativeNames names;
    std::vector<std::string> extensions; ///< names of the extensions that are asked for
};

/// \throws Failure: it is malformed, or refused
RequestDetails requestDetails(const Norvane::Buffer& der);

} // namespace norvcrypt
