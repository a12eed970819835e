#pragma once

/// \file
/// The caches of the accessors: filled on first use, never refreshed, without a lock.

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

/// Answers `slot`, after `fill(slot)` when it is still empty: a null handle, an empty text or an empty list. A `fill`
/// that has nothing to give leaves the slot unwritten, so that threads that share what was warmed only read it.
template <class Slot, class Fill> Slot& fillWhenEmpty(Slot& slot, Fill fill) {
    const bool isEmpty = [&] {
        if constexpr (requires { slot.isNull(); }) {
            return slot.isNull();
        } else {
            return slot.empty();
        }
    }();
    if (isEmpty) {
        fill(slot);
    }
    return slot;
}

} // namespace Norvane::Crypto::detail
