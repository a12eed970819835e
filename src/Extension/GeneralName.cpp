#include <norvcrypto/Extension.h>

#include "Extension/Names.h"
#include "failures/Events.h"
#include "openssl/ErrorQueue.h"
#include "openssl/Name.h"

#include <norvcrypto/detail/Lazy.h>

#include <openssl/x509v3.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

namespace Norvane::Crypto::NVX509 {

namespace {

/// What the getters of other types answer.
template <class Value> const Value& nothing() {
    static const Value value{};
    return value;
}

/// What is logged of a text: all of it, where a message would end at a zero octet and show an address that may be sound.
std::string withoutZeroOctets(std::string text) {
    for (std::size_t at = 0; (at = text.find('\0', at)) != std::string::npos;) {
        text.replace(at, 1, "\\x00");
    }
    return text;
}

} // namespace

const std::list<GeneralName>& fillNames(std::list<GeneralName>& cache, const stack_st_GENERAL_NAME* entries) {
    return Crypto::detail::fillWhenEmpty(cache, [entries](auto& names) {
        for (int i = 0; i < sk_GENERAL_NAME_num(entries); ++i) {
            names.emplace_back(sk_GENERAL_NAME_value(entries, i));
        }
    });
}

class GeneralName::Kept {
public:
    Kept() = default;
    virtual ~Kept() = default;
    Kept& operator=(const Kept&) = delete;
    [[nodiscard]] virtual std::unique_ptr<Kept> copy() const = 0;

protected:
    Kept(const Kept&) = default;
};

template <class Value> class GeneralName::KeptAs : public Kept {
public:
    explicit KeptAs(Value toKeep) : value(std::move(toKeep)) {}
    [[nodiscard]] std::unique_ptr<Kept> copy() const override { return std::make_unique<KeptAs>(*this); }

    const Value value;
};

GeneralName::GeneralName(const GENERAL_NAME_st* name) : m_name(name) {}
GeneralName::GeneralName(const GeneralName& other)
    : m_name(other.m_name),
      m_type(other.m_type),
      m_value(other.m_value ? other.m_value->copy() : nullptr) {}
GeneralName& GeneralName::operator=(const GeneralName& other) {
    if (this != &other) {
        m_value = other.m_value ? other.m_value->copy() : nullptr;
        m_name = other.m_name;
        m_type = other.m_type;
    }
    return *this;
}
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

template <class Value> const Value* GeneralName::kept() const noexcept {
    return m_value ? &static_cast<const KeptAs<Value>&>(*m_value).value : nullptr;
}

template <class Value> const Value& GeneralName::keep(Value value) const {
    m_value = std::make_unique<KeptAs<Value>>(std::move(value));
    return *kept<Value>();
}

const DistinguishedName& GeneralName::dn() const {
    if (type() != GEN_DIRNAME) {
        return nothing<DistinguishedName>();
    }
    if (const auto* name = kept<DistinguishedName>()) {
        return *name;
    }
    // cppcheck-suppress returnTempReference ; both sides are references to what is kept
    return m_name->d.directoryName == nullptr ? nothing<DistinguishedName>()
                                              : keep(DistinguishedName(m_name->d.directoryName));
}

// A cache that stays empty, or as it is, is not written: threads may share a name whose getters were all called once.

const Uri& GeneralName::uri() const {
    if (type() != GEN_URI || m_name->d.uniformResourceIdentifier == nullptr) {
        return nothing<Uri>();
    }
    if (const auto* uri = kept<Uri>()) {
        return *uri;
    }
    const std::string text = openssl::bytesOf(m_name->d.uniformResourceIdentifier);
    Uri parsed(text.data(), static_cast<unsigned int>(text.size()));
    // cppcheck-suppress returnTempReference ; as above
    return parsed.isNull() ? nothing<Uri>() : keep(std::move(parsed));
}

const IPAddress& GeneralName::ipAddress() const {
    if (type() != GEN_IPADD || m_name->d.iPAddress == nullptr) {
        return nothing<IPAddress>();
    }
    if (const auto* address = kept<IPAddress>()) {
        return *address;
    }
    const IPAddress address(openssl::bytesOf(m_name->d.iPAddress));
    // cppcheck-suppress returnTempReference ; as above
    return address.isNull() ? nothing<IPAddress>() : keep(address);
}

const EmailAddress& GeneralName::emailAddress() const {
    if (type() != GEN_EMAIL || m_name->d.rfc822Name == nullptr) {
        return nothing<EmailAddress>();
    }
    // Nothing is kept for the next call: each parses, and logs, anew.
    const std::string text = openssl::bytesOf(m_name->d.rfc822Name);
    const EmailAddress& address = keep(EmailAddress::rfc5321Parse(text, false));
    if (address.isEmptyAddress()) {
        failures::logX509(failures::X509Message::invalidAddress,
                          "GeneralName::emailAddress: invalid address " + withoutZeroOctets(text));
    }
    return address;
}

} // namespace Norvane::Crypto::NVX509
