#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

/// What scripts/mutate writes into the sources: each changed place asks whether it is the one that is changed in this process.
namespace norvmutants {

constexpr unsigned most = 65536;
/// The number of the mutant, 0 for none.
extern unsigned active;
/// Which numbers were asked for.
extern unsigned char reached[most];

inline bool on(unsigned number) {
    __atomic_store_n(&reached[number], 1, __ATOMIC_RELAXED);
    return number == active;
}

/// `! x` as `Not{7} ->* x`, which binds as closely as a binary operator can.
struct Not {
    unsigned number;
    template <class Operand> bool operator->*(Operand&& operand) const {
        return static_cast<bool>(std::forward<Operand>(operand)) == on(number);
    }
};

/// `++x` as `Increment{7} ->* x`.
struct Increment {
    unsigned number;
    template <class Operand>
    requires requires(Operand& operand) { --operand; }
    Operand& operator->*(Operand& operand) const { return on(number) ? --operand : ++operand; }
};

/// NORV_MUTANT_BINARY(name, operator, operator of the mutant): both have to exist and give what converts to the first one's result.
#define NORV_MUTANT_BINARY(name, original, other)                                                                      \
    template <class Left, class Right>                                                                                 \
    requires requires(Left left, Right right) {                                                                        \
        left other right;                                                                                              \
    }                                                                                                                  \
    inline auto name(unsigned number, Left&& left, Right&& right)                                                      \
        ->decltype(std::forward<Left>(left) original std::forward<Right>(right)) {                                     \
        if (on(number)) {                                                                                              \
            return std::forward<Left>(left) other std::forward<Right>(right);                                          \
        }                                                                                                              \
        return std::forward<Left>(left) original std::forward<Right>(right);                                           \
    }

NORV_MUTANT_BINARY(less, <, <=)
NORV_MUTANT_BINARY(lessEqual, <=, <)
NORV_MUTANT_BINARY(greater, >, >=)
NORV_MUTANT_BINARY(greaterEqual, >=, >)
NORV_MUTANT_BINARY(plus, +, -)
NORV_MUTANT_BINARY(minus, -, +)
NORV_MUTANT_BINARY(times, *, +)
NORV_MUTANT_BINARY(divided, /, *)
NORV_MUTANT_BINARY(modulo, %, *)
NORV_MUTANT_BINARY(shiftedRight, >>, <<)
NORV_MUTANT_BINARY(bitAnd, &, |)
NORV_MUTANT_BINARY(bitOr, |, &)
NORV_MUTANT_BINARY(addTo, +=, -=)
NORV_MUTANT_BINARY(takeFrom, -=, +=)
NORV_MUTANT_BINARY(orTo, |=, &=)
NORV_MUTANT_BINARY(andTo, &=, |=)

#undef NORV_MUTANT_BINARY

} // namespace norvmutants
