#include "recognise/Blanks.h"

namespace norvcrypt {

bool isBlank(unsigned char byte) {
    return byte == '\n' || byte == '\r' || byte == ' ' || byte == '\t';
}

} // namespace norvcrypt
