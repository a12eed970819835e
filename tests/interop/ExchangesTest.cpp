// How ciphers, sizes of bodies and counts of recipients are dealt out to the programs that encrypt and decrypt.

#include "support/JudgedEncryption.h"

#include <algorithm>

using namespace interop;

namespace {

template <class Such> bool has(Program program, Such such) {
    const std::vector<Exchange> exchanges = exchangesOf(program);
    return std::any_of(exchanges.begin(), exchanges.end(), such);
}
template <class Such> bool anyHas(Such such) {
    return std::any_of(programs.begin(), programs.end(), [&](Program program) { return has(program, such); });
}
bool uses(const Exchange& exchange, const Cipher& cipher) {
    return exchange.cipher.name == std::string(cipher.name);
}

TEST(ExchangesTest, EachSizeMeetsEachCipherAndBothCountsOfRecipients) {
    for (const Cipher& cipher : ciphers) {
        for (const std::size_t size : sizes) {
            EXPECT_TRUE(anyHas([&](const Exchange& one) { return one.size == size && uses(one, cipher); }))
                << size << cipher.name;
        }
        for (const bool several : {false, true}) {
            EXPECT_TRUE(anyHas([&](const Exchange& one) { return one.several == several && uses(one, cipher); }))
                << several << cipher.name;
        }
    }
    for (const std::size_t size : sizes) {
        for (const bool several : {false, true}) {
            EXPECT_TRUE(anyHas([&](const Exchange& one) { return one.size == size && one.several == several; }))
                << size << several;
        }
    }
}

TEST(ExchangesTest, EachProgramMeetsEachCipherAndBothCountsOfRecipients) {
    for (const Program program : programs) {
        for (const Cipher& cipher : ciphers) {
            EXPECT_TRUE(has(program, [&](const Exchange& one) { return uses(one, cipher); })) << cipher.name;
        }
        for (const bool several : {false, true}) {
            EXPECT_TRUE(has(program, [&](const Exchange& one) { return one.several == several; })) << several;
        }
    }
}

} // namespace
