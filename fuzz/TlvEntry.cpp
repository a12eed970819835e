// What libFuzzer asks for changed inputs: NORV_PREFIX octets that choose what is done, and elements behind them.
#include "TlvMutator.h"

#include <algorithm>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

constexpr std::size_t prefix = NORV_PREFIX;

/// Writes the result behind the prefix; gives the length of all.
std::size_t put(std::uint8_t* data, const fuzz::Bytes& octets) {
    std::copy(octets.begin(), octets.end(), data + prefix);
    return prefix + octets.size();
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                               unsigned int seed) {
    if (size <= prefix || most <= prefix) {
        return LLVMFuzzerMutate(data, size, most);
    }
    if (prefix != 0 && seed % 16 == 0) {
        LLVMFuzzerMutate(data, prefix, prefix);
    }
    fuzz::TlvMutator mutator(LLVMFuzzerMutate, seed);
    return put(data, mutator.change(fuzz::Bytes(data + prefix, data + size), most - prefix));
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data, std::size_t size, const std::uint8_t* other,
                                                 std::size_t otherSize, std::uint8_t* out, std::size_t most,
                                                 unsigned int seed) {
    if (size <= prefix || otherSize <= prefix || most <= prefix) {
        return 0; // nothing
    }
    std::copy_n(data, prefix, out);
    fuzz::TlvMutator mutator(LLVMFuzzerMutate, seed);
    return put(out, mutator.cross(fuzz::Bytes(data + prefix, data + size),
                                  fuzz::Bytes(other + prefix, other + otherSize), most - prefix));
}
