#include <norvcrypto/Extension.h>

#include "Extension/Names.h"
#include "Extension/TypedRef.h"
#include "openssl/Decode.h"
#include "openssl/Pointers.h"

#include <norvcrypto/detail/Lazy.h>

#include <openssl/x509v3.h>

namespace Norvane::Crypto {

void detail::AuthorityKeyIdentifierTraits::free(AUTHORITY_KEYID_st* identifier) noexcept {
    AUTHORITY_KEYID_free(identifier);
}

void detail::BasicConstraintsTraits::free(BASIC_CONSTRAINTS_st* constraints) noexcept {
    BASIC_CONSTRAINTS_free(constraints);
}

void detail::GeneralNamesTraits::free(stack_st_GENERAL_NAME* names) noexcept {
    GENERAL_NAMES_free(names);
}

void detail::AccessDescriptionsTraits::free(stack_st_ACCESS_DESCRIPTION* descriptions) noexcept {
    AUTHORITY_INFO_ACCESS_free(descriptions);
}

namespace NVX509 {

namespace {

constexpr const char* noIdentifier = nullptr;

/// Appends the locations of the descriptions with one access method, when the list is empty.
const std::list<GeneralName>& locations(std::list<GeneralName>& cache, const stack_st_ACCESS_DESCRIPTION* descriptions,
                                        int method) {
    return Crypto::detail::fillWhenEmpty(cache, [descriptions, method](auto& names) {
        for (int i = 0; i < sk_ACCESS_DESCRIPTION_num(descriptions); ++i) {
            const ACCESS_DESCRIPTION* description = sk_ACCESS_DESCRIPTION_value(descriptions, i);
            if (description != nullptr && OBJ_obj2nid(description->method) == method) {
                names.emplace_back(description->location);
            }
        }
    });
}

} // namespace

AuthorityKeyIdentifier::AuthorityKeyIdentifier(const unsigned char* der, unsigned int length)
    : Extension("2.5.29.35"),
      m_structure(openssl::decode<d2i_AUTHORITY_KEYID>(der, length), true) {}
AuthorityKeyIdentifier::AuthorityKeyIdentifier(const AUTHORITY_KEYID_st* identifier)
    : Extension("2.5.29.35"),
      m_structure(decltype(m_structure)::borrow(identifier)) {}
AuthorityKeyIdentifier::~AuthorityKeyIdentifier() = default;

const ASN1::RefOctetString& AuthorityKeyIdentifier::keyId() const {
    if (m_keyId.isNull() && m_structure) {
        m_keyId = ASN1::RefOctetString(m_structure.get()->keyid);
    }
    return m_keyId;
}

BasicConstraints::BasicConstraints(const unsigned char* der, unsigned int length)
    : Extension("2.5.29.19"),
      m_structure(openssl::decode<d2i_BASIC_CONSTRAINTS>(der, length), true) {}
BasicConstraints::BasicConstraints(const BASIC_CONSTRAINTS_st* constraints)
    : Extension(noIdentifier),
      m_structure(decltype(m_structure)::borrow(constraints)) {}
BasicConstraints::~BasicConstraints() = default;

BasicConstraints::operator const BASIC_CONSTRAINTS_st*() const noexcept {
    return m_structure.get();
}

SubjectAlternativeName::SubjectAlternativeName(const unsigned char* der, unsigned int length)
    : Extension("2.5.29.17"),
      m_structure(openssl::decode<d2i_GENERAL_NAMES>(der, length), true) {}
SubjectAlternativeName::SubjectAlternativeName(const stack_st_GENERAL_NAME* names)
    : Extension(noIdentifier),
      m_structure(decltype(m_structure)::borrow(names)) {}
SubjectAlternativeName::~SubjectAlternativeName() = default;

const std::list<GeneralName>& SubjectAlternativeName::names() const {
    return fillNames(m_names, m_structure.get());
}

AuthorityInformationAccess::AuthorityInformationAccess(const unsigned char* der, unsigned int length)
    : Extension("1.3.6.1.5.5.7.1.1"),
      m_structure(openssl::decode<d2i_AUTHORITY_INFO_ACCESS>(der, length), true) {}
AuthorityInformationAccess::AuthorityInformationAccess(const stack_st_ACCESS_DESCRIPTION* descriptions)
    : Extension(noIdentifier),
      m_structure(decltype(m_structure)::borrow(descriptions)) {}
AuthorityInformationAccess::~AuthorityInformationAccess() = default;

const std::list<GeneralName>& AuthorityInformationAccess::ocspGeneralNames() const {
    return locations(m_ocspNames, m_structure.get(), NID_ad_OCSP);
}

const std::list<GeneralName>& AuthorityInformationAccess::issuerGeneralNames() const {
    return locations(m_issuerNames, m_structure.get(), NID_ad_ca_issuers);
}

RefAuthorityKeyIdentifier::RefAuthorityKeyIdentifier() = default;
RefAuthorityKeyIdentifier::RefAuthorityKeyIdentifier(const unsigned char* der, unsigned int length)
    : TypedRefExtension(makeReference<AuthorityKeyIdentifier, Extension>(der, length)) {}
RefAuthorityKeyIdentifier::RefAuthorityKeyIdentifier(const AUTHORITY_KEYID_st* identifier)
    : TypedRefExtension(makeReference<AuthorityKeyIdentifier, Extension>(identifier)) {}
RefAuthorityKeyIdentifier::RefAuthorityKeyIdentifier(const RefAuthorityKeyIdentifier& other) = default;
RefAuthorityKeyIdentifier& RefAuthorityKeyIdentifier::operator=(const RefAuthorityKeyIdentifier& other) = default;
RefAuthorityKeyIdentifier& RefAuthorityKeyIdentifier::operator=(const RefExtension& extension) {
    convert(extension);
    return *this;
}
RefAuthorityKeyIdentifier::~RefAuthorityKeyIdentifier() = default;

RefBasicConstraints::RefBasicConstraints() = default;
RefBasicConstraints::RefBasicConstraints(const unsigned char* der, unsigned int length)
    : TypedRefExtension(makeReference<BasicConstraints, Extension>(der, length)) {}
RefBasicConstraints::RefBasicConstraints(const BASIC_CONSTRAINTS_st* constraints)
    : TypedRefExtension(makeReference<BasicConstraints, Extension>(constraints)) {}
RefBasicConstraints::RefBasicConstraints(const RefBasicConstraints& other) = default;
RefBasicConstraints& RefBasicConstraints::operator=(const RefBasicConstraints& other) = default;
RefBasicConstraints& RefBasicConstraints::operator=(const RefExtension& extension) {
    convert(extension);
    return *this;
}
RefBasicConstraints::~RefBasicConstraints() = default;

RefSubjectAlternativeName::RefSubjectAlternativeName() = default;
RefSubjectAlternativeName::RefSubjectAlternativeName(const unsigned char* der, unsigned int length)
    : TypedRefExtension(makeReference<SubjectAlternativeName, Extension>(der, length)) {}
RefSubjectAlternativeName::RefSubjectAlternativeName(const stack_st_GENERAL_NAME* names)
    : TypedRefExtension(makeReference<SubjectAlternativeName, Extension>(names)) {}
RefSubjectAlternativeName::RefSubjectAlternativeName(const RefExtension& extension) {
    convert(extension);
}
RefSubjectAlternativeName::RefSubjectAlternativeName(const RefSubjectAlternativeName& other) = default;
RefSubjectAlternativeName& RefSubjectAlternativeName::operator=(const RefSubjectAlternativeName& other) = default;
RefSubjectAlternativeName& RefSubjectAlternativeName::operator=(const RefExtension& extension) {
    convert(extension);
    return *this;
}
RefSubjectAlternativeName::~RefSubjectAlternativeName() = default;

RefAuthorityInformationAccess::RefAuthorityInformationAccess() = default;
RefAuthorityInformationAccess::RefAuthorityInformationAccess(const unsigned char* der, unsigned int length)
    : TypedRefExtension(makeReference<AuthorityInformationAccess, Extension>(der, length)) {}
RefAuthorityInformationAccess::RefAuthorityInformationAccess(const stack_st_ACCESS_DESCRIPTION* descriptions)
    : TypedRefExtension(makeReference<AuthorityInformationAccess, Extension>(descriptions)) {}
RefAuthorityInformationAccess::RefAuthorityInformationAccess(const RefExtension& extension) {
    convert(extension);
}
RefAuthorityInformationAccess::RefAuthorityInformationAccess(const RefAuthorityInformationAccess& other) = default;
RefAuthorityInformationAccess& RefAuthorityInformationAccess::operator=(const RefAuthorityInformationAccess& other) =
    default;
RefAuthorityInformationAccess& RefAuthorityInformationAccess::operator=(const RefExtension& extension) {
    convert(extension);
    return *this;
}
RefAuthorityInformationAccess::~RefAuthorityInformationAccess() = default;

template class TypedRefExtension<AuthorityKeyIdentifier>;
template class TypedRefExtension<BasicConstraints>;
template class TypedRefExtension<SubjectAlternativeName>;
template class TypedRefExtension<AuthorityInformationAccess>;

} // namespace NVX509

} // namespace Norvane::Crypto
