#pragma once

/// \file
/// The members of TypedRefExtension, for the modules that instantiate it.

#include <norvcrypto/Extension.h>

namespace Norvane::Crypto::NVX509 {

namespace detail {

/// The body as its own kind; one of another kind throws as a null handle does.
template <class Body> Body* arrow(Extension* body) {
    auto* typed = dynamic_cast<Body*>(body);
    if (typed == nullptr && body != nullptr) {
        static_cast<void>(Ref<Extension>().operator->());
    }
    return typed;
}

template <class Body> Body& dereference(Extension& body) {
    auto* typed = dynamic_cast<Body*>(&body);
    if (typed == nullptr) {
        static_cast<void>(Ref<Extension>().operator*());
    }
    // cppcheck-suppress nullPointerRedundantCheck ; what is above throws
    return *typed;
}

} // namespace detail

template <class Body> TypedRefExtension<Body>::~TypedRefExtension() = default;

template <class Body> Body* TypedRefExtension<Body>::operator->() {
    return detail::arrow<Body>(RefExtension::operator->());
}

template <class Body> Body& TypedRefExtension<Body>::operator*() {
    return detail::dereference<Body>(RefExtension::operator*());
}

template <class Body> Body* TypedRefExtension<Body>::operator->() const {
    return detail::arrow<Body>(RefExtension::operator->());
}

template <class Body> Body& TypedRefExtension<Body>::operator*() const {
    return detail::dereference<Body>(RefExtension::operator*());
}

template <class Body> void TypedRefExtension<Body>::convert(const RefExtension& extension) {
    const ASN1::RefOctetString* value = valueOf(extension);
    this->reset(value == nullptr ? nullptr : makeReference<Body, Extension>((*value)->data(), (*value)->length()));
}

} // namespace Norvane::Crypto::NVX509
