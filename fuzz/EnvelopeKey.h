#pragma once

/// \file
/// The recipient for whom the corpus of enveloped structures is encrypted, and whose key the target decrypts with.

#include <authority/Authority.h>

#include <fstream>
#include <iterator>
#include <string>

namespace fuzz {

inline norvauthority::Identity envelopeIdentity() {
    std::ifstream file(NORV_KEYS "/bob.pem");
    return norvauthority::issue({.subject = {{"CN", "Bob"}},
                                 .key = norvauthority::Key::fromPem({std::istreambuf_iterator<char>(file), {}}),
                                 .serial = "b0b"});
}

} // namespace fuzz
