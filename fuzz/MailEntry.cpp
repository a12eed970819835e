// What libFuzzer asks for changed inputs: NORV_PREFIX octets that choose what is done, and a mail behind them.
#include "MailMutator.h"

#include <algorithm>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

constexpr std::size_t prefix = NORV_PREFIX;

std::string mailIn(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data) + prefix, size - prefix};
}

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                               unsigned int seed) {
    if (size <= prefix || most <= prefix || seed % 8 == 0) {
        return LLVMFuzzerMutate(data, size, most);
    }
    fuzz::MailMutator mutator(LLVMFuzzerMutate, seed);
    const std::string mail = mutator.change(mailIn(data, size), most - prefix);
    std::copy(mail.begin(), mail.end(), data + prefix);
    return prefix + mail.size();
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data, std::size_t size, const std::uint8_t* other,
                                                 std::size_t otherSize, std::uint8_t* out, std::size_t most,
                                                 unsigned int seed) {
    if (size <= prefix || otherSize <= prefix || most <= prefix) {
        return 0; // nothing
    }
    fuzz::MailMutator mutator(LLVMFuzzerMutate, seed);
    const std::string mail = mutator.cross(mailIn(data, size), mailIn(other, otherSize), most - prefix);
    std::copy_n(data, prefix, out);
    std::copy(mail.begin(), mail.end(), out + prefix);
    return prefix + mail.size();
}
