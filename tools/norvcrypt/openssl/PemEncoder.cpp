#include "openssl/PemEncoder.h"

#include <algorithm>
#include <new>
#include <utility>

namespace norvcrypt {

namespace {

constexpr std::size_t ofLine = 48; ///< bytes in a line
constexpr std::size_t lineLength = 65;
constexpr std::size_t atOnce = std::size_t{1} << 16U;

std::size_t roomFor(std::size_t length) {
    return (length / ofLine + 2) * lineLength + 1; // and a NUL byte
}

} // namespace

PemEncoder::PemEncoder(std::string label) : m_label(std::move(label)), m_context(EVP_ENCODE_CTX_new()) {
    if (m_context == nullptr)
        throw std::bad_alloc();
    EVP_EncodeInit(m_context.get());
}

void PemEncoder::begin() {
    m_text.clear();
    if (!std::exchange(m_begun, true))
        m_text = "-----BEGIN " + m_label + "-----\n";
}

const std::string& PemEncoder::add(const unsigned char* data, std::size_t length) {
    begin();
    while (length != 0) {
        const std::size_t count = std::min(length, atOnce);
        const std::size_t before = m_text.size();
        m_text.resize(before + roomFor(count));
        int written = 0;
        EVP_EncodeUpdate(m_context.get(), reinterpret_cast<unsigned char*>(m_text.data() + before), &written, data,
                         static_cast<int>(count));
        m_text.resize(before + static_cast<std::size_t>(written));
        data += count;
        length -= count;
    }
    return m_text;
}

const std::string& PemEncoder::finish() {
    begin();
    const std::size_t before = m_text.size();
    m_text.resize(before + roomFor(0));
    int written = 0;
    EVP_EncodeFinal(m_context.get(), reinterpret_cast<unsigned char*>(m_text.data() + before), &written);
    m_text.resize(before + static_cast<std::size_t>(written));
    return m_text += "-----END " + m_label + "-----\n";
}

} // namespace norvcrypt
