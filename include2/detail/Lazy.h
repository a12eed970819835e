#ifndef NORVCRYPTO_DETAIL_LAZY_H
#define NORVCRYPTO_DETAIL_LAZY_H

/// \file
/// The caches of the accessors: filled on first use, never refreshed, without a lock.

#include <type_traits>
#include <utility>

namespace Norvane::Crypto::detail {

/// A cached yes or no.
enum class TriState : int { unknown = 0, no = 1, yes = 2 };

[[nodiscard]] constexpr TriState triState(bool value) noexcept {
    return value ? TriState::yes : TriState::no;
}

/// Answers from `cache`, which `decide` fills on the first call.
template <class Decide> bool answerOnce(TriState& cache, Decide decide) {
    if (cache == TriState::unknown) {
        cache = triState(decide());
    }
    return cache == TriState::yes;
}

/// Whether a type tells emptiness by `isNull()`, as handles and values do; else it is a text or list with `empty()`.
template <class Slot, class = void> struct CanBeNull : std::false_type {};
template <class Slot> struct CanBeNull<Slot, std::void_t<decltype(std::declval<const Slot&>().isNull())>>
    : std::true_type {};

/// Answers `slot`, after `fill(slot)` when it is still empty: a null handle, an empty text or an empty list. A `fill`
/// that has nothing to give leaves the slot unwritten, so that threads that share what was warmed only read it. Texts and
/// lists are filled as a whole: what there was no memory for in the middle is not taken for all of it the next time.
template <class Slot, class Fill> Slot& fillWhenEmpty(Slot& slot, Fill fill) {
    if constexpr (CanBeNull<Slot>::value) {
        if (slot.isNull()) {
            fill(slot);
        }
    } else if (slot.empty()) {
        Slot all;
        fill(all);
        if (!all.empty()) {
            slot = std::move(all);
        }
    }
    return slot;
}

} // namespace Norvane::Crypto::detail

#endif
