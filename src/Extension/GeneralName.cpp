#include <norvcrypto/Extension.h>

#include "Extension/Names.h"
#include "failures/Events.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Name.h"

#include <openssl/x509v3.h>

#include <string>
#include <utility>

namespace Norvane::Crypto::NVX509 {

const std::list<GeneralName>& fillNames(std::list<GeneralName>& cache, const stack_st_GENERAL_NAME* entries) {
    if (cache.empty()) {
        for (int i = 0; i < sk_GENERAL_NAME_num(entries); ++i) {
            cache.emplace_back(sk_GENERAL_NAME_value(entries, i));
        }
    }
    return cache;
}

GeneralName::GeneralName(const GENERAL_NAME_st* name) : m_name(name) {}
GeneralName::GeneralName(const GeneralName& other) = default;
GeneralName& GeneralName::operator=(const GeneralName& other) = default;
GeneralName::~GeneralName() = default;

int GeneralName::type() const {
    if (m_type == -1 && m_name != nullptr) {
        m_type = m_name->type;
    }
    return m_type;
}

bool GeneralName::operator==(const GeneralName& other) const {
    if (m_name == nullptr || other.m_name == nullptr) {
        return m_name == other.m_name;
    }
    const openssl::ErrorMark mark;
    return GENERAL_NAME_cmp(const_cast<GENERAL_NAME*>(m_name), const_cast<GENERAL_NAME*>(other.m_name)) == 0;
}

const DistinguishedName& GeneralName::dn() const {
    if (type() == GEN_DIRNAME && m_dn.isNull()) {
        m_dn = DistinguishedName(m_name->d.directoryName);
    }
    return m_dn;
}

// A cache that stays empty, or as it is, is not written: threads may share a name whose getters were all called once.

const Uri& GeneralName::uri() const {
    if (type() == GEN_URI && m_uri.isNull() && m_name->d.uniformResourceIdentifier != nullptr) {
        const std::string text = openssl::bytesOf(m_name->d.uniformResourceIdentifier);
        if (Uri parsed(text.data(), static_cast<unsigned int>(text.size())); !parsed.isNull()) {
            m_uri = std::move(parsed); // nothing is written otherwise: a warmed certificate is only read
        }
    }
    return m_uri;
}

const IPAddress& GeneralName::ipAddress() const {
    if (type() == GEN_IPADD && m_name->d.iPAddress != nullptr) {
        if (const IPAddress address(openssl::bytesOf(m_name->d.iPAddress)); !(address == m_ipAddress)) {
            m_ipAddress = address;
        }
    }
    return m_ipAddress;
}

const EmailAddress& GeneralName::emailAddress() const {
    // The name's cache is always empty for an address: each call parses, and logs, anew.
    if (type() == GEN_EMAIL && m_name->d.rfc822Name != nullptr && m_dn.isNull()) {
        const std::string text = openssl::bytesOf(m_name->d.rfc822Name);
        m_emailAddress = EmailAddress::rfc5321Parse(text, false);
        if (m_emailAddress.isEmptyAddress()) {
            failures::logX509(failures::X509Message::invalidAddress,
                              "GeneralName::emailAddress: invalid address " + text);
        }
    }
    return m_emailAddress;
}

} // namespace Norvane::Crypto::NVX509
