#include "write/CmsFile.h"

#include <authority/Authority.h>

#include <string>

namespace norvcrypt {

void writeStructure(OutputFile& out, const Norvane::Buffer& der, bool pem) {
    if (pem) {
        const std::string text = norvauthority::pem("PKCS7", {der.data(), der.data() + der.length()});
        out.write(text.data(), text.size());
    } else {
        out.write(der.data(), der.length());
    }
}

} // namespace norvcrypt
