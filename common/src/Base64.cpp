#include "Base64.h"

#include <array>
#include <cstdint>

namespace Norvane::base64 {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t invalid = 0xFF;

constexpr std::array<std::uint8_t, 256> valuesOfDigits() {
    std::array<std::uint8_t, 256> table{};
    table.fill(invalid);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return table;
}
constexpr auto values = valuesOfDigits();

constexpr bool isWhiteSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

} // namespace

std::optional<unsigned int> decode(std::string_view text, unsigned char* out) noexcept {
    std::uint32_t bits = 0;
    unsigned int digits = 0;  // in the current group of four
    unsigned int padding = 0; // ends the text
    unsigned int length = 0;
    for (const char character : text) {
        if (isWhiteSpace(character)) {
            continue;
        }
        if (character == '=') {
            ++padding;
            continue;
        }
        const auto value = values[static_cast<unsigned char>(character)];
        if (value == invalid || padding != 0) {
            return std::nullopt;
        }
        bits = (bits << 6U) | value;
        if (++digits == 4) {
            out[length++] = static_cast<unsigned char>(bits >> 16U);
            out[length++] = static_cast<unsigned char>(bits >> 8U);
            out[length++] = static_cast<unsigned char>(bits);
            bits = 0;
            digits = 0;
        }
    }
    if (digits == 0) {
        return padding == 0 ? std::optional(length) : std::nullopt;
    }
    const auto leftOver = digits == 3 ? bits & 0x3U : bits & 0xFU;
    if (digits == 1 || digits + padding != 4 || leftOver != 0) {
        return std::nullopt;
    }
    out[length++] = static_cast<unsigned char>(digits == 3 ? bits >> 10U : bits >> 4U);
    if (digits == 3) {
        out[length++] = static_cast<unsigned char>(bits >> 2U);
    }
    return length;
}

std::string encode(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const auto byteAt = [&](std::size_t index) -> std::uint32_t {
            return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0U;
        };
        const auto bits = byteAt(i) << 16U | byteAt(i + 1) << 8U | byteAt(i + 2);
        text += alphabet[bits >> 18U];
        text += alphabet[(bits >> 12U) & 0x3FU];
        text += i + 1 < bytes.size() ? alphabet[(bits >> 6U) & 0x3FU] : '=';
        text += i + 2 < bytes.size() ? alphabet[bits & 0x3FU] : '=';
    }
    return text;
}

} // namespace Norvane::base64
