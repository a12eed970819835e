#include "openssl/AlgorithmName.h"

#include "openssl/ErrorQueue.h"
#include "openssl/Pointers.h"

#include <array>

namespace Norvane::Crypto::openssl {

namespace {

constexpr const char* unreadable = "an unreadable object identifier";

ObjectPtr decodedIdentifier(std::span<const unsigned char> element) {
    const ErrorMark mark;
    const unsigned char* at = element.data();
    return ObjectPtr(element.empty() ? nullptr : d2i_ASN1_OBJECT(nullptr, &at, static_cast<long>(element.size())));
}

std::string dotted(const ASN1_OBJECT* identifier) {
    std::array<char, 128> text{};
    const ErrorMark mark;
    const int length = OBJ_obj2txt(text.data(), static_cast<int>(text.size()), identifier, 1);
    return length <= 0 ? unreadable : text.data();
}

} // namespace

std::string algorithmName(const ASN1_OBJECT* identifier) {
    if (identifier == nullptr) {
        return "no algorithm";
    }
    const int nid = OBJ_obj2nid(identifier);
    return nid == NID_undef ? dotted(identifier) : std::string(OBJ_nid2sn(nid)) + " (" + dotted(identifier) + ")";
}

std::string encodedIdentifierName(std::span<const unsigned char> element) {
    const ObjectPtr identifier = decodedIdentifier(element);
    return identifier == nullptr ? unreadable : algorithmName(identifier.get());
}

std::string encodedIdentifierDigits(std::span<const unsigned char> element) {
    const ObjectPtr identifier = decodedIdentifier(element);
    return identifier == nullptr ? std::string() : dotted(identifier.get());
}

std::string usualName(const ASN1_OBJECT* identifier) {
    if (identifier == nullptr) {
        return {};
    }
    switch (OBJ_obj2nid(identifier)) {
    case NID_rsassaPss:
        return "RSASSA-PSS";
    case NID_ED25519:
        return "Ed25519";
    case NID_ED448:
        return "Ed448";
    default:
        break;
    }
    const ErrorMark mark;
    std::array<char, 256> text{};
    const int length = OBJ_obj2txt(text.data(), static_cast<int>(text.size()), identifier, 0);
    return length <= 0 ? std::string() : std::string(text.data());
}

} // namespace Norvane::Crypto::openssl
