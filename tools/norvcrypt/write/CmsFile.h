#pragma once

#include "files/Output.h"

#include <norvcmsg/Buffer.h>

namespace norvcrypt {

/// Writes the structure as it is, or as a PEM block. \throws Failure
void writeStructure(OutputFile& out, const Norvane::Buffer& der, bool pem);

} // namespace norvcrypt
