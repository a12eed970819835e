#pragma once

/// \file
/// Values as they are put into a description.

#include "show/Description.h"

#include <openssl/asn1.h>

#include <string>
#include <vector>

namespace norvcrypt {

/// Adds an oddity that does not keep the object from being read.
void problem(Description& object, const std::string& text);
// What is empty or absent is left out.
void putText(Description& object, const char* key, const std::string& text);
void putTexts(Description& object, const char* key, const std::vector<std::string>& texts);
/// \param what the number, as a problem names it
void putNumber(Description& object, const char* key, const char* what, const ASN1_INTEGER* number);
void putTime(Description& object, const char* key, const ASN1_TIME* time);

} // namespace norvcrypt
