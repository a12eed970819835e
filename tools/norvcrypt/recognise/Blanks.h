#pragma once

namespace norvcrypt {

/// A byte that editors leave at the end of a file.
bool isBlank(unsigned char byte);

} // namespace norvcrypt
