#include "openssl/Reasons.h"
#include "base/PlainWords.h"

#include <norvcrypto/Crypto.h>

namespace norvcrypt {

std::string openSslReasons() {
    const std::string reasons = inPlainWords(Norvane::Crypto::getErrString());
    return reasons.substr(0, reasons.find_last_not_of("; ") + 1); // they end like a list that goes on
}

std::string reasonOf(const Norvane::Exception& failure) {
    const std::string reasons = openSslReasons();
    const std::string text = inPlainWords(failure);
    return text.substr(0, text.find_last_not_of("; ") + 1) + (reasons.empty() ? "" : ": " + reasons);
}

} // namespace norvcrypt
