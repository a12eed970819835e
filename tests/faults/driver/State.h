#pragma once

#include "Faults.h"

namespace faults {

/// What is armed in a thread.
struct State {
    bool armed = false;
    int paused = 0;
    Kind kind = Kind::allocation;
    long left = 0; ///< until the fault
    bool came = false;
    const char* place = "";
    int line = 0;
};
extern thread_local State state;
/// Where set: the calls from which each one of the armed kind came, as a number for each of their stacks.
extern thread_local std::vector<std::size_t>* stacks;
void noteStack(std::size_t times) noexcept;

/// Counts one of its kind: true when the fault comes now.
inline bool comes(Kind kind, const char* place, int line = 0) noexcept {
    State& mine = state;
    if (!mine.armed || mine.paused != 0 || mine.kind != kind) {
        return false;
    }
    if (stacks != nullptr) {
        noteStack(1);
    }
    if (--mine.left != 0) {
        return false;
    }
    mine.came = true;
    mine.place = place;
    mine.line = line;
    return true;
}

/// Forks when that is the fault. In the child `ChildLeaves` is thrown, or the process left at once where nothing may be thrown.
void forkHere(const char* place, bool mayThrow);

} // namespace faults
