#include <norvcrypto-smime/SMimeAnswer.h>

#include <array>
#include <cstddef>

namespace Norvane::Crypto::SMime {

namespace {

template <class Number, std::size_t count>
const char* nameIn(const std::array<const char*, count>& names, Number number) noexcept {
    const auto index = static_cast<std::size_t>(number);
    // It takes the arrays below, whose type is deduced, for arrays of numbers.
    // cppcheck-suppress CastIntegerToAddressAtReturn
    return index < count ? names[index] : "unknown";
}

} // namespace

const char* nameOf(LayerKind kind) noexcept {
    static constexpr std::array names{"multipart-signed",  "opaque-signed", "enveloped", "auth-enveloped",
                                      "certificates-only", "forwarded",     "other"};
    return nameIn(names, kind);
}

const char* nameOf(LayerStatus status) noexcept {
    static constexpr std::array names{"good", "signature-wrong", "no-key", "unsupported", "damaged", "too-costly"};
    return nameIn(names, status);
}

const char* nameOf(SignedForm form) noexcept {
    static constexpr std::array names{"as-they-stand", "canonical"};
    return nameIn(names, form);
}

const char* nameOf(HeaderScheme scheme) noexcept {
    static constexpr std::array names{"none", "clear", "cipher", "wrapped", "parameter"};
    return nameIn(names, scheme);
}

const char* nameOf(FieldState state) noexcept {
    static constexpr std::array names{"same", "obscured", "differs", "missing"};
    return nameIn(names, state);
}

const char* nameOf(Verdict verdict) noexcept {
    static constexpr std::array names{"not-smime", "accepted", "signature-good", "decrypted", "certificates",
                                      "refused",   "no-key",   "unsupported",    "damaged",   "too-costly"};
    return nameIn(names, verdict);
}

} // namespace Norvane::Crypto::SMime
