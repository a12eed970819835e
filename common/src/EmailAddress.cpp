#include <norvcmsg/EmailAddress.h>

#include "Ascii.h"
#include "Mailbox.h"

#include <string_view>

namespace Norvane {

EmailAddress::EmailAddress() = default;

EmailAddress EmailAddress::rfc5321Parse(const std::string& text, bool allowUtf8) {
    EmailAddress address;
    if (text.empty()) {
        address.m_null = false;
        return address;
    }
    if (const auto at = mailbox::parse(text, allowUtf8)) {
        address.m_address = text;
        address.m_at = *at;
        address.m_null = false;
    }
    return address;
}

std::string EmailAddress::localPart() const {
    return m_address.substr(0, m_at);
}

std::string EmailAddress::domain() const {
    return m_address.empty() ? std::string() : m_address.substr(m_at + 1);
}

bool EmailAddress::operator==(const EmailAddress& other) const {
    if (m_null != other.m_null || m_at != other.m_at) {
        return false;
    }
    const std::string_view mine(m_address);
    const std::string_view others(other.m_address);
    return mine.substr(0, m_at) == others.substr(0, m_at) && ascii::equalNoCase(mine.substr(m_at), others.substr(m_at));
}

} // namespace Norvane
