#include "openssl/RawValues.h"

#include "openssl/AlgorithmName.h"
#include "openssl/Decode.h"
#include "openssl/ErrorQueue.h"

#include <openssl/objects.h>

#include <array>
#include <climits>

namespace Norvane::Crypto::openssl {

namespace {

/// Decodes the whole of some octets with the `d2i_` function `Decode`; null when they are more or less than that.
template <class Pointer, auto Decode> Pointer decodeWhole(framing::Octets octets) noexcept {
    if (octets.size() > static_cast<std::size_t>(INT_MAX)) {
        return nullptr;
    }
    const ErrorMark mark;
    const unsigned char* at = octets.data();
    Pointer value(Decode(nullptr, &at, static_cast<long>(octets.size())));
    return at == octets.data() + octets.size() ? std::move(value) : nullptr;
}

using TimePtr = Owned<ASN1_TIME, ASN1_TIME_free>;

} // namespace

ObjectPtr objectOf(framing::Octets element) noexcept {
    return decodeWhole<ObjectPtr, d2i_ASN1_OBJECT>(element);
}

int nidOf(framing::Octets element) noexcept {
    const ObjectPtr object = objectOf(element);
    return object == nullptr ? NID_undef : OBJ_obj2nid(object.get());
}

std::string digitsOf(framing::Octets element) {
    const ErrorMark mark;
    const ObjectPtr object = objectOf(element);
    std::array<char, 128> text{};
    const int length = object == nullptr ? 0 : OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object.get(), 1);
    return length <= 0 ? std::string() : std::string(text.data());
}

std::string nameOf(framing::Octets element) {
    return usualName(objectOf(element).get());
}

std::optional<std::time_t> momentOf(framing::Octets element) noexcept {
    const ErrorMark mark;
    const TimePtr time = decodeWhole<TimePtr, d2i_ASN1_TIME>(element);
    std::tm fields{};
    if (time == nullptr || ASN1_TIME_check(time.get()) != 1 || ASN1_TIME_to_tm(time.get(), &fields) != 1) {
        return std::nullopt;
    }
    return timegm(&fields);
}

NamePtr distinguishedNameOf(framing::Octets element) {
    return NamePtr(decode<d2i_X509_NAME>(element.data(), static_cast<unsigned int>(element.size())));
}

} // namespace Norvane::Crypto::openssl
