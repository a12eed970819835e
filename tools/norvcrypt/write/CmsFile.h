#pragma once

#include "files/Output.h"

#include <norvcmsg/Media.h>

namespace norvcrypt {

/// How a structure stands in its file.
enum class StructureForm : int {
    binary,   ///< as it is
    pemPkcs7, ///< a PEM block for readers of PKCS#7, which CMS has grown from
    pemCms,   ///< a PEM block for what they do not know
};

/// A stream that takes a structure and writes it into a file, which must outlive it, as it comes. Its end ends the block, and
/// does not commit the file.
class StructureStream : public Norvane::MediaOut {
public:
    StructureStream(OutputFile& file, StructureForm form);
};

} // namespace norvcrypt
