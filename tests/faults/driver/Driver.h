#pragma once

// Runs an operation with each fault at each place.

#include "Faults.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace faults {

/// What an operation came to.
struct Answer {
    enum Verdict : int {
        done,      ///< all that was asked for, and it is right
        refused,   ///< an answer that is no success: not accepted, not found, not decrypted
        undecided, ///< an answer that says neither yes nor no: not supported
        wrong,     ///< a success with a wrong result, or half of one
    };
    Verdict verdict = done;
    std::string text{};
};

/// A line of the table.
struct Operation {
    std::string name;
    /// What is done, and a judgement of the result, which is made under `Pause`. May throw: Norvane::Exception,
    /// std::bad_alloc, StreamFailure.
    std::function<Answer()> act;
    bool mustRefuse = false; ///< what it is given is bad: `done` is wrong, whatever happens
    /// Good input, of which this operation may say no when memory or the system fails, since its interface has no other way
    /// to tell.
    bool mayRefuse = false;
    bool leavesQueue = false; ///< entries in OpenSSL's error queue, as its header says
    int weight = 1;           ///< how much longer it takes than others: so many times fewer places are tried
};

/// Something that must not be.
struct Finding {
    std::string operation;
    Kind kind = Kind::allocation;
    long number = 0;
    std::string place; ///< where the fault came
    std::string what;  ///< "crash: ...", "leak: ...", "wrong: ..."
};
std::string textOf(const Finding& finding);

/// What was tried.
struct Tried {
    long places = 0; ///< faults that came
    long done = 0;
    long refused = 0;
    long thrown = 0;
    Tried& operator+=(const Tried& other);
};

/// How many places of each kind are tried: all of them, or about so many.
struct Extent {
    bool all = false;
    bool stacks = false; ///< or one for each stack of calls from which a fault can come
    long places = 8;
    std::optional<Kind> only{}; ///< the one kind that is tried; all of them when there is none
    /// A file that keeps what was tried, so that another run goes on there; none when it is empty.
    std::string record;
};
/// As the environment says: NORV_FAULTS=all, stacks, or a number; NORV_FAULTS_RECORD=FILE.
Extent extent();

/// Runs the operation with all kinds of faults, in processes of its own, so that a crash is a finding like others.
std::vector<Finding> run(const Operation& operation, const Extent& extent, Tried& tried);

} // namespace faults
