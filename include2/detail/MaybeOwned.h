#ifndef NORVCRYPTO_DETAIL_MAYBE_OWNED_H
#define NORVCRYPTO_DETAIL_MAYBE_OWNED_H

/// \file
/// The pointer at the heart of every wrapper: an OpenSSL object that the wrapper either owns or borrows.

#include <new>
#include <utility>

namespace Norvane::Crypto::detail {

/// A pointer and whether it is owned. `Traits` names the C functions: `static void free(T*) noexcept` and
/// `static T* duplicate(const T*)`, which answers null when there is no memory. A borrowing value copies as borrowing
/// (the lender must outlive the copy too); one that owns copies deeply.
template <class T, class Traits> class MaybeOwned {
public:
    MaybeOwned() noexcept = default;
    MaybeOwned(T* object, bool owned) noexcept : m_object(object), m_owned(owned) {}
    /// \throws std::bad_alloc: an object that is owned could not be copied; a copy is never silently empty
    MaybeOwned(const MaybeOwned& other) : m_object(other.m_object), m_owned(other.m_owned) {
        if (m_owned && m_object != nullptr) {
            m_object = Traits::duplicate(other.m_object);
            if (m_object == nullptr) {
                throw std::bad_alloc();
            }
        }
    }
    MaybeOwned(MaybeOwned&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)),
          m_owned(std::exchange(other.m_owned, false)) {}
    MaybeOwned& operator=(MaybeOwned other) noexcept {
        std::swap(m_object, other.m_object);
        std::swap(m_owned, other.m_owned);
        return *this;
    }
    ~MaybeOwned() {
        if (m_owned && m_object != nullptr) {
            Traits::free(m_object);
        }
    }

    /// An object of the caller's, which must outlive this value. Const is cast away for C interfaces that lack it; the
    /// object is never written.
    static MaybeOwned borrow(const T* object) noexcept { return MaybeOwned(const_cast<T*>(object), false); }
    /// Takes over an object, which may be null.
    static MaybeOwned adopt(T* object) noexcept { return MaybeOwned(object, true); }

    [[nodiscard]] T* get() const noexcept { return m_object; }
    [[nodiscard]] bool owned() const noexcept { return m_owned; }
    void owned(bool own) noexcept { m_owned = own; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

private:
    T* m_object = nullptr;
    bool m_owned = false;
};

} // namespace Norvane::Crypto::detail

#endif
