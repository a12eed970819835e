#pragma once

/// \file
/// A CMS structure in a file, as verifying and decrypting read it.

#include "files/Input.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMS.h>

#include <functional>
#include <string>

namespace norvcrypt {

/// Gives `decode` a stream over the one structure of a file, BER or PEM; `what` names it in messages ("the signature").
/// A binary structure is not taken into memory as a whole. \throws Failure: there is none, it is malformed (`decode`
/// threw), or more follows
void readStructure(Inputs& inputs, const std::string& path, const std::string& what,
                   const std::function<void(Norvane::MediaIn&)>& decode, Progress* progress = nullptr);

/// The one structure of a file, for verifying. \throws Failure as above; what is well formed and not supported is named
Norvane::Crypto::CMS::RefContentInfo readSignature(Inputs& inputs, const std::string& path);

} // namespace norvcrypt
