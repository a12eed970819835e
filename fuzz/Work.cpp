#include "Work.h"

#include "support/Interpose.h"

#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

extern "C" __attribute__((weak)) int __sanitizer_install_malloc_and_free_hooks(
    void (*onMalloc)(const volatile void* memory, std::size_t size), void (*onFree)(const volatile void* memory));

extern "C" __attribute__((weak)) std::size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace fuzz {

namespace {

Work s_work;
std::uint64_t s_held = 0; ///< of what was allocated while it was counted
bool s_counting = false;
int s_inside = 0; ///< operations that call other counted ones count once

void onAllocation(const volatile void* /*memory*/, std::size_t size) {
    if (s_counting) {
        ++s_work.allocations;
        s_work.allocated += size;
        s_held += size;
        s_work.held = std::max(s_work.held, s_held);
    }
}
/// What was there before does not make room.
void onRelease(const volatile void* memory) {
    if (s_counting && memory != nullptr) {
        s_held -= std::min<std::uint64_t>(s_held, __sanitizer_get_allocated_size(memory));
    }
}

/// Only AddressSanitizer tells of allocations.
[[maybe_unused]] const int s_hooked = __sanitizer_install_malloc_and_free_hooks == nullptr
                                          ? 0
                                          : __sanitizer_install_malloc_and_free_hooks(onAllocation, onRelease);

/// Counts an operation unless it is part of another.
class Operation {
public:
    explicit Operation(std::uint64_t products) noexcept {
        if (s_inside++ == 0 && s_counting) {
            s_work.products += products;
        }
    }
    ~Operation() { --s_inside; }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
};

std::uint64_t words(const BIGNUM* number) noexcept {
    return number == nullptr ? 0 : static_cast<std::uint64_t>(BN_num_bits(number) + 63) / 64;
}
std::uint64_t bits(const BIGNUM* number) noexcept {
    return number == nullptr ? 0 : static_cast<std::uint64_t>(BN_num_bits(number));
}
/// A modular product: as many words for the product as for its reduction.
std::uint64_t modular(const BIGNUM* modulus) noexcept {
    return 2 * words(modulus) * words(modulus);
}
std::uint64_t power(const BIGNUM* exponent, const BIGNUM* modulus) noexcept {
    return (bits(exponent) + 1) * modular(modulus);
}

void hash(std::size_t length) noexcept {
    if (s_counting) {
        s_work.hashed += 64 + length;
    }
}
void compareOrDecode() noexcept {
    s_work.elements += s_counting ? 1 : 0;
}

} // namespace

std::string Work::asString() const {
    return "products " + std::to_string(products) + ", hashed " + std::to_string(hashed) + ", ciphered " +
           std::to_string(ciphered) + ", elements " + std::to_string(elements) + ", comparisons " +
           std::to_string(comparisons) + ", allocations " + std::to_string(allocations) + " of " +
           std::to_string(allocated) + " octets: " + std::to_string(total()) + " in all";
}

Counting::Counting() noexcept {
    s_work = {};
    s_held = 0;
    s_counting = true;
}

const Work& Counting::stop() noexcept {
    s_counting = false;
    return s_work;
}

Uncounted::Uncounted() noexcept : m_before(s_counting) {
    s_counting = false;
}

Uncounted::~Uncounted() {
    s_counting = m_before;
}

void Budget::check(const Work& work, std::size_t size) const {
    const std::uint64_t most = constant + perOctet * size;
    const std::uint64_t mostComparisons = 500'000 + comparisonsPerOctet * size;
    if (work.total() > most || work.comparisons > mostComparisons) {
        std::fprintf(stderr, "%zu octets cost more than %llu, or more than %llu comparisons: %s\n", size,
                     static_cast<unsigned long long>(most), static_cast<unsigned long long>(mostComparisons),
                     work.asString().c_str());
        std::abort();
    }
}

} // namespace fuzz

extern "C" {

using fuzz::modular;
using fuzz::Operation;
using fuzz::power;
using fuzz::words;
using norvtest::next;

int BN_mod_exp(BIGNUM* result, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus, BN_CTX* context) {
    const Operation counted(power(exponent, modulus));
    return next<&BN_mod_exp>("BN_mod_exp")(result, base, exponent, modulus, context);
}

int BN_mod_exp_mont(BIGNUM* result, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus, BN_CTX* context,
                    BN_MONT_CTX* prepared) {
    const Operation counted(power(exponent, modulus));
    return next<&BN_mod_exp_mont>("BN_mod_exp_mont")(result, base, exponent, modulus, context, prepared);
}

int BN_mod_exp_mont_consttime(BIGNUM* result, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus,
                              BN_CTX* context, BN_MONT_CTX* prepared) {
    const Operation counted(power(exponent, modulus));
    return next<&BN_mod_exp_mont_consttime>("BN_mod_exp_mont_consttime")(result, base, exponent, modulus, context,
                                                                         prepared);
}

int BN_mod_exp_mont_consttime_x2(BIGNUM* result1, const BIGNUM* base1, const BIGNUM* exponent1, const BIGNUM* modulus1,
                                 BN_MONT_CTX* prepared1, BIGNUM* result2, const BIGNUM* base2, const BIGNUM* exponent2,
                                 const BIGNUM* modulus2, BN_MONT_CTX* prepared2, BN_CTX* context) {
    const Operation counted(power(exponent1, modulus1) + power(exponent2, modulus2));
    return next<&BN_mod_exp_mont_consttime_x2>("BN_mod_exp_mont_consttime_x2")(
        result1, base1, exponent1, modulus1, prepared1, result2, base2, exponent2, modulus2, prepared2, context);
}

int BN_mod_exp_mont_word(BIGNUM* result, BN_ULONG base, const BIGNUM* exponent, const BIGNUM* modulus, BN_CTX* context,
                         BN_MONT_CTX* prepared) {
    const Operation counted(power(exponent, modulus));
    return next<&BN_mod_exp_mont_word>("BN_mod_exp_mont_word")(result, base, exponent, modulus, context, prepared);
}

int BN_mod_exp2_mont(BIGNUM* result, const BIGNUM* base1, const BIGNUM* exponent1, const BIGNUM* base2,
                     const BIGNUM* exponent2, const BIGNUM* modulus, BN_CTX* context, BN_MONT_CTX* prepared) {
    const Operation counted(power(exponent1, modulus) + power(exponent2, modulus));
    return next<&BN_mod_exp2_mont>("BN_mod_exp2_mont")(result, base1, exponent1, base2, exponent2, modulus, context,
                                                       prepared);
}

int BN_mod_mul_montgomery(BIGNUM* result, const BIGNUM* left, const BIGNUM* right, BN_MONT_CTX* prepared,
                          BN_CTX* context) {
    const Operation counted(2 * words(left) * words(right));
    return next<&BN_mod_mul_montgomery>("BN_mod_mul_montgomery")(result, left, right, prepared, context);
}

int BN_mul(BIGNUM* result, const BIGNUM* left, const BIGNUM* right, BN_CTX* context) {
    const Operation counted(words(left) * words(right));
    return next<&BN_mul>("BN_mul")(result, left, right, context);
}

int BN_sqr(BIGNUM* result, const BIGNUM* number, BN_CTX* context) {
    const Operation counted(words(number) * words(number));
    return next<&BN_sqr>("BN_sqr")(result, number, context);
}

int BN_div(BIGNUM* quotient, BIGNUM* rest, const BIGNUM* number, const BIGNUM* divisor, BN_CTX* context) {
    const std::uint64_t longer = words(number);
    const std::uint64_t shorter = words(divisor);
    const Operation counted(longer < shorter ? 1 : (longer - shorter + 1) * shorter);
    return next<&BN_div>("BN_div")(quotient, rest, number, divisor, context);
}

BIGNUM* BN_mod_inverse(BIGNUM* result, const BIGNUM* number, const BIGNUM* modulus, BN_CTX* context) {
    const Operation counted(64 * modular(modulus));
    return next<&BN_mod_inverse>("BN_mod_inverse")(result, number, modulus, context);
}

int BN_mul_word(BIGNUM* number, BN_ULONG factor) {
    const Operation counted(words(number));
    return next<&BN_mul_word>("BN_mul_word")(number, factor);
}

int EC_POINT_mul(const EC_GROUP* group, EC_POINT* result, const BIGNUM* generatorFactor, const EC_POINT* point,
                 const BIGNUM* factor, BN_CTX* context) {
    const auto field = static_cast<std::uint64_t>(EC_GROUP_get_degree(group) + 63) / 64;
    const std::uint64_t doublings = std::max(fuzz::bits(generatorFactor), fuzz::bits(factor));
    const Operation counted(doublings * 12 * 2 * field * field);
    return next<&EC_POINT_mul>("EC_POINT_mul")(group, result, generatorFactor, point, factor, context);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t length) {
    fuzz::hash(length);
    return next<&EVP_DigestUpdate>("EVP_DigestUpdate")(context, data, length);
}

int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* count, const unsigned char* in, int length) {
    fuzz::s_work.ciphered += fuzz::s_counting && length > 0 ? static_cast<std::uint64_t>(length) : 0U;
    return next<&EVP_CipherUpdate>("EVP_CipherUpdate")(context, out, count, in, length);
}

int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* count, const unsigned char* in, int length) {
    fuzz::s_work.ciphered += fuzz::s_counting && length > 0 ? static_cast<std::uint64_t>(length) : 0U;
    return next<&EVP_DecryptUpdate>("EVP_DecryptUpdate")(context, out, count, in, length);
}

int ASN1_get_object(const unsigned char** at, long* length, int* tag, int* tagClass, long available) {
    fuzz::compareOrDecode();
    return next<&ASN1_get_object>("ASN1_get_object")(at, length, tag, tagClass, available);
}

int GENERAL_NAME_cmp(GENERAL_NAME* left, GENERAL_NAME* right) {
    fuzz::compareOrDecode();
    return next<&GENERAL_NAME_cmp>("GENERAL_NAME_cmp")(left, right);
}

int X509_NAME_cmp(const X509_NAME* left, const X509_NAME* right) {
    fuzz::compareOrDecode();
    return next<&X509_NAME_cmp>("X509_NAME_cmp")(left, right);
}

#ifdef __clang__ // the only one that has calls for them
// Clang has every comparison of numbers call these. The linker (--wrap) puts ours before those of libFuzzer, which go by
// the address that they return to: nothing may be on the stack between.
#define NORV_COMPARISON(name, type)                                                                                    \
    void __real_##name(type, type);                                                                                    \
    void __wrap_##name(type left, type right);                                                                         \
    void __wrap_##name(type left, type right) {                                                                        \
        fuzz::s_work.comparisons += fuzz::s_counting ? 1 : 0;                                                          \
        [[clang::musttail]] return __real_##name(left, right);                                                         \
    }
NORV_COMPARISON(__sanitizer_cov_trace_cmp1, std::uint8_t)
NORV_COMPARISON(__sanitizer_cov_trace_cmp2, std::uint16_t)
NORV_COMPARISON(__sanitizer_cov_trace_cmp4, std::uint32_t)
NORV_COMPARISON(__sanitizer_cov_trace_cmp8, std::uint64_t)
NORV_COMPARISON(__sanitizer_cov_trace_const_cmp1, std::uint8_t)
NORV_COMPARISON(__sanitizer_cov_trace_const_cmp2, std::uint16_t)
NORV_COMPARISON(__sanitizer_cov_trace_const_cmp4, std::uint32_t)
NORV_COMPARISON(__sanitizer_cov_trace_const_cmp8, std::uint64_t)
#undef NORV_COMPARISON
#endif

} // extern "C"
