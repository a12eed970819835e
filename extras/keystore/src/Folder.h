#pragma once

#include "Files.h"
#include "Snapshot.h"

#include <string>

namespace Norvane::Crypto::NVX509::keystore {

/// Reads one folder of the store, and adds what is used and what is not to a snapshot. \throws Exhausted
void readFolder(Snapshot& snapshot, const Descriptor& store, const std::string& name);

} // namespace Norvane::Crypto::NVX509::keystore
