#pragma once

#include "files/Input.h"

#include <norvcrypto/Certificate.h>

#include <list>
#include <string>

namespace norvcrypt {

/// The certificates in a file, in order; at least one. \throws Failure
std::list<Norvane::Crypto::NVX509::RefCertificate> readCertificates(Inputs& inputs, const std::string& path);

} // namespace norvcrypt
