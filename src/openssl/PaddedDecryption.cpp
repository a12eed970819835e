#include "openssl/PaddedDecryption.h"

#include "openssl/ErrorQueue.h"

#include <algorithm>

namespace Norvane::Crypto::openssl {

PaddedDecryption::PaddedDecryption(EVP_CIPHER_CTX* context)
    : m_context(context),
      m_block(static_cast<std::size_t>(std::max(1, EVP_CIPHER_CTX_get_block_size(context)))),
      m_clear(s_pieceLength + EVP_MAX_BLOCK_LENGTH + EVP_MAX_BLOCK_LENGTH) {
    EVP_CIPHER_CTX_set_padding(context, 0);
}

bool PaddedDecryption::add(std::span<const unsigned char> encrypted) {
    if (m_added == 0) {
        std::copy(m_held.begin(), m_held.end(), m_clear.data()); // m_clearLength octets
    }
    int count = 0;
    if (EVP_DecryptUpdate(m_context, m_clear.data() + m_clearLength, &count, encrypted.data(),
                          static_cast<int>(encrypted.size())) != 1) {
        return false;
    }
    m_added += encrypted.size();
    m_clearLength += static_cast<std::size_t>(count);
    return true;
}

std::span<const unsigned char> PaddedDecryption::take() noexcept {
    m_partial = (m_partial + m_added) % m_block;
    m_added = 0;
    const std::size_t held = m_block == 1 || m_partial != 0 ? 0 : std::min(m_block, m_clearLength);
    const std::size_t taken = m_clearLength - held;
    m_held = {m_clear.data() + taken, held};
    m_clearLength = held;
    return {m_clear.data(), taken};
}

std::optional<std::span<const unsigned char>> PaddedDecryption::update(std::span<const unsigned char> encrypted) {
    return add(encrypted) ? std::optional(take()) : std::nullopt;
}

/// The length of the last block without its padding. What is wrong with it does not show in the time that this takes.
std::optional<std::size_t> PaddedDecryption::unpadded() const noexcept {
    if (m_held.size() != m_block) {
        return std::nullopt;
    }
    const std::size_t padding = m_held.back();
    unsigned int wrong = static_cast<unsigned int>(padding == 0) | static_cast<unsigned int>(padding > m_block);
    for (std::size_t i = 0; i != m_block; ++i) {
        const unsigned int differs = static_cast<unsigned int>(m_held[i] != padding);
        wrong |= differs & static_cast<unsigned int>(i + padding >= m_block);
    }
    return wrong != 0 ? std::nullopt : std::optional(m_block - padding);
}

std::optional<std::span<const unsigned char>> PaddedDecryption::finish() {
    const ErrorMark mark;
    unsigned char none[EVP_MAX_BLOCK_LENGTH];
    int count = 0;
    if (EVP_DecryptFinal_ex(m_context, none, &count) != 1) {
        return std::nullopt;
    }
    if (m_block == 1) {
        return std::span<const unsigned char>();
    }
    const auto length = unpadded();
    return length ? std::optional<std::span<const unsigned char>>(m_held.first(*length)) : std::nullopt;
}

} // namespace Norvane::Crypto::openssl
