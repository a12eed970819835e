#include "openssl/AlgorithmIdentifiers.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <openssl/objects.h>

namespace Norvane::Crypto::openssl {

namespace {

framing::Encoded encoded(const ASN1_OBJECT* identifier) {
    return framing::primitive(framing::TagClass::universal, framing::objectIdentifier,
                              {OBJ_get0_data(identifier), OBJ_length(identifier)});
}

} // namespace

framing::Encoded objectIdentifier(int nid) {
    return encoded(OBJ_nid2obj(nid));
}

std::optional<framing::Encoded> objectIdentifier(const std::string& digits) {
    constexpr std::size_t longest = 256; // OpenSSL takes the square of the length
    if (digits.size() > longest || digits.find_first_not_of("0123456789.") != std::string::npos ||
        digits.find("..") != std::string::npos || digits.ends_with('.')) { // no number, which OpenSSL takes for 0
        return std::nullopt;
    }
    const ErrorMark mark;
    const ObjectPtr identifier(OBJ_txt2obj(digits.c_str(), 1));
    return identifier == nullptr ? std::nullopt : std::optional(encoded(identifier.get()));
}

framing::Encoded algorithmIdentifier(int nid) {
    return framing::sequenceOf({objectIdentifier(nid)});
}

framing::Encoded algorithmIdentifier(int nid, framing::Octets parameters) {
    return framing::sequenceOf({objectIdentifier(nid), parameters});
}

} // namespace Norvane::Crypto::openssl
