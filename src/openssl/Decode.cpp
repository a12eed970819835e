#include "openssl/Decode.h"

#include "framing/Elements.h"
#include "openssl/Pointers.h"

namespace Norvane::Crypto::openssl {

Buffer encodeInteger(const ASN1_INTEGER* integer) {
    const ErrorMark mark;
    const int length = i2d_ASN1_INTEGER(integer, nullptr);
    if (length <= 0) {
        return {};
    }
    Buffer encoded(length, length);
    unsigned char* end = encoded.data();
    i2d_ASN1_INTEGER(integer, &end);
    return encoded;
}

Buffer integerContent(const ASN1_INTEGER* integer) {
    const Buffer encoded = encodeInteger(integer);
    const auto element = framing::firstElement({encoded.data(), encoded.length()});
    return element ? Buffer(element->content.data(), static_cast<unsigned int>(element->content.size()), false)
                   : Buffer();
}

ASN1_GENERALIZEDTIME* toGeneralizedTime(const ASN1_TIME* time) {
    const ErrorMark mark;
    GeneralizedTimePtr converted(ASN1_TIME_to_generalizedtime(time, nullptr));
    if (!converted) {
        return nullptr;
    }
    std::string text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(time)),
                     static_cast<std::size_t>(ASN1_STRING_length(time)));
    if (ASN1_STRING_type(time) == V_ASN1_UTCTIME) {
        text.insert(0, text.front() >= '5' ? "19" : "20");
    }
    if (ASN1_STRING_set(converted.get(), text.data(), static_cast<int>(text.size())) != 1) {
        return nullptr;
    }
    return converted.release();
}

} // namespace Norvane::Crypto::openssl
