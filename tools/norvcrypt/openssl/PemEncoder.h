#pragma once

#include "openssl/OpenSsl.h"

#include <cstddef>
#include <string>

namespace norvcrypt {

/// Makes a PEM block of bytes that come in pieces.
class PemEncoder {
public:
    /// \throws Failure: no memory
    explicit PemEncoder(std::string label);

    /// The text for these bytes, as far as lines are full: with the first piece, the line before them too. It is valid
    /// until the next call.
    const std::string& add(const unsigned char* data, std::size_t length);
    /// What is left, and the line behind it.
    const std::string& finish();

private:
    void begin();

    std::string m_label;
    Owned<EVP_ENCODE_CTX, EVP_ENCODE_CTX_free> m_context;
    bool m_begun = false;
    std::string m_text;
};

} // namespace norvcrypt
