#pragma once

/// \file
/// Filling the caches of what certificates and lists hand out, so that they can be shared between threads. The answers
/// are not looked at; asking is what fills a cache.

#include <norvcrypto/ASN1.h>
#include <norvcrypto/CRLDistributionPoint.h>
#include <norvcrypto/DistinguishedName.h>
#include <norvcrypto/Extension.h>

#include <list>

namespace Norvane::Crypto::NVX509 {

inline void warmName(const DistinguishedName& name) {
    static_cast<void>(name.asString());
    static_cast<void>(name.listRDN());
    static_cast<void>(name.hash());
    static_cast<void>(name == name.object()); // comparing encodes a name that was changed
}

inline void warmInteger(const ASN1::Integer& number) {
    if (number.object() != nullptr) {
        static_cast<void>(number.asInt());
    }
}

inline void warmTime(const ASN1::RefGeneralizedTime& time) {
    if (!time.isNull()) {
        static_cast<void>(time->asTime());
    }
}

/// All but the mail address, which is parsed (and an invalid one logged) on every call, so that warming it is no use.
inline void warmNames(const std::list<GeneralName>& names) {
    for (const auto& name : names) {
        static_cast<void>(name.type());
        warmName(name.dn());
        static_cast<void>(name.uri());
        static_cast<void>(name.ipAddress());
    }
}

inline void warmPointName(const CRLDistributionPointName& name) {
    name.warm();
    warmNames(name.fullName());
}

inline void warmExtensionList(const std::list<RefExtension>& extensions) {
    for (const auto& extension : extensions) {
        if (const auto& identifier = extension->identifier(); !identifier.isNull()) {
            static_cast<void>(identifier->asString());
        }
        static_cast<void>(extension->derEncodedValue());
    }
}

inline void warmExtension(const RefAuthorityKeyIdentifier& extension) {
    if (!extension.isNull()) {
        static_cast<void>(extension->keyId());
    }
}

inline void warmExtension(const RefSubjectAlternativeName& extension) {
    if (!extension.isNull()) {
        warmNames(extension->names());
    }
}

inline void warmExtension(const RefCRLDistributionPoints& extension) {
    if (extension.isNull()) {
        return;
    }
    for (const auto& point : extension->distributionPoints()) {
        static_cast<void>(point->reasons());
        warmNames(point->issuers());
        warmPointName(point->distributionPointName());
    }
}

} // namespace Norvane::Crypto::NVX509
