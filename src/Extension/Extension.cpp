#include <norvcrypto/Extension.h>

#include "openssl/Pointers.h"

namespace Norvane::Crypto::NVX509 {

Extension::Extension(const X509_extension_st* extension) : m_extension(extension) {}

Extension::Extension(const char* identifier) {
    if (identifier != nullptr) {
        m_identifier = ASN1::RefObjectIdentifier(std::string(identifier));
    }
}

Extension::~Extension() = default;

bool Extension::critical() const {
    return X509_EXTENSION_get_critical(m_extension) > 0;
}

// The next two read only; the C interface lacks the const.

const ASN1::RefObjectIdentifier& Extension::identifier() const {
    if (m_identifier.isNull() && m_extension != nullptr) {
        m_identifier = ASN1::RefObjectIdentifier(X509_EXTENSION_get_object(const_cast<X509_EXTENSION*>(m_extension)));
    }
    return m_identifier;
}

const ASN1::RefOctetString& Extension::derEncodedValue() const {
    if (m_derEncodedValue.isNull() && m_extension != nullptr) {
        m_derEncodedValue = ASN1::RefOctetString(X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(m_extension)));
    }
    return m_derEncodedValue;
}

RefExtension::RefExtension() = default;
RefExtension::RefExtension(const X509_extension_st* extension) : Ref(makeReference<Extension>(extension)) {}
RefExtension::RefExtension(const RefExtension& other) = default;
RefExtension& RefExtension::operator=(const RefExtension& other) = default;
RefExtension::~RefExtension() = default;

Extension* RefExtension::operator->() {
    return Ref::operator->();
}

Extension& RefExtension::operator*() {
    return Ref::operator*();
}

Extension* RefExtension::operator->() const {
    return Ref::operator->();
}

Extension& RefExtension::operator*() const {
    return Ref::operator*();
}

const ASN1::RefOctetString* RefExtension::valueOf(const RefExtension& extension) {
    const Extension* body = extension.bodyOrNull();
    if (body == nullptr || body->derEncodedValue().isNull()) {
        return nullptr;
    }
    return &body->derEncodedValue();
}

} // namespace Norvane::Crypto::NVX509

template class Norvane::RefCounted<Norvane::Crypto::NVX509::Extension>;
template class Norvane::Ref<Norvane::Crypto::NVX509::Extension>;
