#include "show/Facts.h"
#include "openssl/CertificateDetails.h"

namespace norvcrypt {

void problem(Description& object, const std::string& text) {
    object["problems"].push_back(text);
}

void putText(Description& object, const char* key, const std::string& text) {
    if (!text.empty())
        object[key] = text;
}

void putTexts(Description& object, const char* key, const std::vector<std::string>& texts) {
    if (!texts.empty())
        object[key] = texts;
}

void putNumber(Description& object, const char* key, const char* what, const ASN1_INTEGER* number) {
    if (number == nullptr)
        return;
    object[key] = hexNumber(number);
    if (ASN1_STRING_type(number) == V_ASN1_NEG_INTEGER)
        problem(object, std::string("a negative ") + what);
}

void putTime(Description& object, const char* key, const ASN1_TIME* time) {
    if (time == nullptr)
        return;
    if (const auto text = isoTime(time))
        object[key] = *text;
    else
        problem(object, std::string(key) + " is no proper time");
}

} // namespace norvcrypt
