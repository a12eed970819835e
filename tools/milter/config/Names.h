#pragma once

/// \file
/// The words of the configuration file.

#include "config/Config.h"

#include <array>
#include <utility>

namespace norvmilter::words {

using Cipher = Norvane::Crypto::CMS::ContentCipher;
using Form = Norvane::Crypto::SMime::SigningForm;
using Norvane::Crypto::Trust::Revocation;

template <class Value, std::size_t count> using Words = std::array<std::pair<const char*, Value>, count>;

inline constexpr Words<Direction, 3> direction{
    {{"outgoing", Direction::outgoing}, {"incoming", Direction::incoming}, {"ignore", Direction::ignore}}};
inline constexpr Words<Wish, 3> wish{{{"never", Wish::never}, {"possible", Wish::possible}, {"must", Wish::must}}};
inline constexpr Words<TooLarge, 3> tooLarge{
    {{"pass", TooLarge::pass}, {"reject", TooLarge::reject}, {"tempfail", TooLarge::tempfail}}};
inline constexpr Words<Mixed, 2> mixed{{{"separate", Mixed::separate}, {"reject", Mixed::reject}}};
inline constexpr Words<Refusal, 2> refusal{{{"pass", Refusal::pass}, {"reject", Refusal::reject}}};
inline constexpr Words<Deliver, 2> deliver{{{"signed", Deliver::asSigned}, {"content", Deliver::content}}};
inline constexpr Words<Form, 2> form{{{"clear", Form::multipartSigned}, {"opaque", Form::opaque}}};
inline constexpr Words<Cipher, 7> cipher{{{"aes-128-cbc", Cipher::aes128Cbc},
                                          {"aes-192-cbc", Cipher::aes192Cbc},
                                          {"aes-256-cbc", Cipher::aes256Cbc},
                                          {"3des-cbc", Cipher::tripleDesCbc},
                                          {"aes-128-gcm", Cipher::aes128Gcm},
                                          {"aes-192-gcm", Cipher::aes192Gcm},
                                          {"aes-256-gcm", Cipher::aes256Gcm}}};
inline constexpr Words<Revocation, 3> revocation{
    {{"none", Revocation::none}, {"available", Revocation::available}, {"required", Revocation::required}}};
inline constexpr Words<LogTarget, 2> logTarget{{{"stderr", LogTarget::standardError}, {"syslog", LogTarget::syslog}}};
inline constexpr Words<LogLevel, 4> logLevel{
    {{"error", LogLevel::error}, {"warning", LogLevel::warning}, {"info", LogLevel::info}, {"debug", LogLevel::debug}}};

template <class Value, std::size_t count>
[[nodiscard]] const char* nameIn(const Words<Value, count>& words, Value value) noexcept {
    for (const auto& [name, one] : words) {
        if (one == value)
            return name;
    }
    return "";
}

} // namespace norvmilter::words
