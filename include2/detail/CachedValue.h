#ifndef NORVCRYPTO_DETAIL_CACHED_VALUE_H
#define NORVCRYPTO_DETAIL_CACHED_VALUE_H

/// \file
/// The cache behind an accessor that wraps a field of a C structure.

namespace Norvane::Crypto::detail {

/// A wrapper `T` that is built around a `Field` on first use and kept from then on. Until the field is there it wraps
/// null; later changes of the field are not seen. Filled without a lock.
template <class T, class Field> class CachedValue {
public:
    /// The wrapper, made from `field` when there is one and nothing is cached yet. What `T`'s constructor throws
    /// passes, and nothing is cached then.
    const T& around(const Field* field) {
        if (!m_filled && field != nullptr) {
            m_value = T(field);
            m_filled = true;
        }
        return m_value;
    }

    /// The wrapper as it stands.
    [[nodiscard]] const T& get() const noexcept { return m_value; }

private:
    T m_value{static_cast<const Field*>(nullptr)};
    bool m_filled = false;
};

} // namespace Norvane::Crypto::detail

#endif
