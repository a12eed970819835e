#include <norvcrypto/ASN1.h>

#include "ASN1/Support.h"
#include "openssl/Decode.h"

#include <string_view>

namespace Norvane::Crypto::ASN1 {

namespace {

using Object = detail::Asn1String<detail::Asn1Kind::generalizedTime>;

constexpr std::size_t textLength = 14; // YYYYMMDDHHMMSS

Object timeObject(const asn1_string_st* time, bool wrapOnly) {
    if (wrapOnly || time == nullptr) {
        return Object::borrow(time);
    }
    return Object::adopt(openssl::toGeneralizedTime(time));
}

/// A decimal number; what is no digit ends it.
int number(std::string_view text) {
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        value = value * 10 + (c - '0');
    }
    return value;
}

/// The time of a text of at least `textLength` characters, by their positions.
Time parsed(std::string_view text) {
    Time time;
    time.seconds(number(text.substr(12, 2)));
    time.minutes(number(text.substr(10, 2)));
    time.hours(number(text.substr(8, 2)));
    time.dayOfMonth(number(text.substr(6, 2)));
    time.month(number(text.substr(4, 2)) - 1);
    time.year(number(text.substr(0, 4)) - 1900);
    return time;
}

bool haveSameFields(const Time& left, const Time& right) {
    return left.seconds() == right.seconds() && left.minutes() == right.minutes() && left.hours() == right.hours() &&
           left.dayOfMonth() == right.dayOfMonth() && left.month() == right.month() && left.year() == right.year();
}

} // namespace

GeneralizedTime::GeneralizedTime(const asn1_string_st* time, bool wrapOnly) : m_object(timeObject(time, wrapOnly)) {}
GeneralizedTime::GeneralizedTime(const GeneralizedTime& other) = default;
GeneralizedTime& GeneralizedTime::operator=(const GeneralizedTime& other) = default;
GeneralizedTime::~GeneralizedTime() = default;

const Time& GeneralizedTime::asTime() const {
    // The year doubles as the mark of a time that is parsed already: one in 1900 is parsed again each time.
    if (!m_object || m_time.year() != 0 || ASN1_STRING_length(m_object.get()) < static_cast<int>(textLength)) {
        return m_time;
    }
    const std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(m_object.get())), textLength);
    const Time time = parsed(text);
    if (!haveSameFields(time, m_time)) { // threads that share a time in 1900 must not write it
        m_time = time;
    }
    return m_time;
}

bool GeneralizedTime::operator==(const GeneralizedTime& other) const {
    if (!m_object || !other.m_object) {
        return !m_object && !other.m_object;
    }
    return asTime() == other.asTime();
}

bool GeneralizedTime::operator<(const GeneralizedTime& other) const {
    if (!m_object || !other.m_object) {
        return !m_object && other.m_object;
    }
    return asTime() < other.asTime();
}

bool GeneralizedTime::operator<=(const GeneralizedTime& other) const {
    if (!m_object || !other.m_object) {
        return !m_object;
    }
    return asTime() <= other.asTime();
}

RefGeneralizedTime::RefGeneralizedTime() = default;
RefGeneralizedTime::RefGeneralizedTime(const asn1_string_st* time, bool wrapOnly)
    : Ref(makeReference<GeneralizedTime>(time, wrapOnly)) {}
RefGeneralizedTime::RefGeneralizedTime(const RefGeneralizedTime& other) = default;
RefGeneralizedTime& RefGeneralizedTime::operator=(const RefGeneralizedTime& other) = default;
RefGeneralizedTime::~RefGeneralizedTime() = default;

bool RefGeneralizedTime::operator==(const RefGeneralizedTime& other) const {
    return sameValue(bodyOrNull(), other.bodyOrNull());
}

bool RefGeneralizedTime::operator<(const RefGeneralizedTime& other) const {
    const GeneralizedTime* mine = bodyOrNull();
    const GeneralizedTime* theirs = other.bodyOrNull();
    return mine != nullptr && theirs != nullptr && mine != theirs && *mine < *theirs;
}

bool RefGeneralizedTime::operator<=(const RefGeneralizedTime& other) const {
    return *this == other || *this < other;
}

} // namespace Norvane::Crypto::ASN1

template class Norvane::RefCounted<Norvane::Crypto::ASN1::GeneralizedTime>;
template class Norvane::Ref<Norvane::Crypto::ASN1::GeneralizedTime>;
