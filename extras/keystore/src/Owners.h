#pragma once

#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

/// The patterns of an `owners.txt`. A file that holds bytes which are no text is refused as a whole: half of it would
/// say something else than its author meant. \throws Refusal
std::vector<DirectoryKeyStore::Owner> ownersOf(const Buffer& text);

} // namespace Norvane::Crypto::NVX509::keystore
