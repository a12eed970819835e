// The certificate that a store hands out is deliberately nobody's. Where a caller leaves it so, the leak check is told
// to expect that one leak and no other; this program is the only one that is, since all others free it.
#include "support/Pkcs12.h"

#include <norvcrypto/Crypto.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>

// The name of what allocated is looked for in the whole stack, which the quick unwinder loses inside OpenSSL.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

// ASN1_item_unpack is what decodes the certificate out of its bag. Keys are decoded by another function
// (PKCS12_item_decrypt_d2i), and so is everything else that a store holds.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ASN1_item_unpack\n";
}

namespace {

using namespace Norvane;
using norvauthority::Identity;

enum class Leaving : int { certificate, key, structure };

const norvauthority::Bytes& sample() {
    static const norvauthority::Bytes der = [] {
        const Identity holder = norvauthority::issue({.subject = {{"CN", "Holder"}}, .key = norvauthority::Key::ec()});
        return norvtest::pkcs12({.key = &holder, .certificate = &holder});
    }();
    return der;
}

/// Reads and lets all handles go. What is left beside the certificate is lost by an extra reference or copy.
[[gnu::noinline]] void readAndLeave(Leaving what) {
    const auto store = norvtest::storeOf(sample());
    store->read("secret");
    if (what == Leaving::key) {
        EVP_PKEY_up_ref(store->privateKey());
    }
    if (what == Leaving::structure) {
        const unsigned char* at = sample().data();
        static_cast<void>(d2i_PKCS12(nullptr, &at, static_cast<long>(sample().size())));
    }
}

/// Writes over what is left of pointers on the stack, which would count as references.
[[gnu::noinline]] void forget() {
    std::array<unsigned char, 65536> stack{};
    std::memset(stack.data(), 0, stack.size());
    asm volatile("" ::"r"(stack.data()) : "memory");
}

/// In a process of its own, since a leak that was found once is found until the end: exit code 0 for none, 1 for some.
[[noreturn]] void leakAndTell(Leaving what) {
    Crypto::initialize();
    readAndLeave(what);
    forget();
    std::_Exit(__lsan_do_recoverable_leak_check() == 0 ? 0 : 1);
}

TEST(Pkcs12LeakDeathTest, CertificateLeftBehindIsExpected) {
    EXPECT_EXIT(leakAndTell(Leaving::certificate), testing::ExitedWithCode(0), "");
}

TEST(Pkcs12LeakDeathTest, KeyLeftBehindIsFound) {
    EXPECT_EXIT(leakAndTell(Leaving::key), testing::ExitedWithCode(1), "detected memory leaks");
}

TEST(Pkcs12LeakDeathTest, StructureLeftBehindIsFound) {
    EXPECT_EXIT(leakAndTell(Leaving::structure), testing::ExitedWithCode(1), "detected memory leaks");
}

} // namespace

#else

TEST(Pkcs12LeakDeathTest, NeedsTheLeakCheck) {
    GTEST_SKIP() << "built without AddressSanitizer";
}

#endif
