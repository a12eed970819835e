// The encrypting and the decrypting stream beside EVP_CipherUpdate.
#include "Support.h"

#include <norvcrypto/Encryption.h>

#include <openssl/evp.h>

using namespace Norvane::Crypto;
using Norvane::Buffer;

namespace {

const Buffer key(32, 32);
const Buffer iv(16, 16);

/// The work of a stream in OpenSSL's calls; `take` gets each piece of the result.
template <class Take>
void callOpenssl(Cipher cipher, bool encrypt, const std::vector<unsigned char>& bytes, std::size_t size, Take take) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(context, initializeCipher(cipher), nullptr, key.data(), iv.data(), encrypt ? 1 : 0);
    unsigned char out[bench::piece + EVP_MAX_BLOCK_LENGTH];
    int count = 0;
    bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
        EVP_CipherUpdate(context, out, &count, data, static_cast<int>(length));
        take(out, count);
    });
    EVP_CipherFinal_ex(context, out, &count);
    take(out, count);
    EVP_CIPHER_CTX_free(context);
}

/// What a direction is given: a body, or `size` bytes that decrypt.
std::vector<unsigned char> inputOf(Cipher cipher, bool encrypt, std::size_t size) {
    if (encrypt) {
        return bench::body(size);
    }
    std::vector<unsigned char> secret;
    callOpenssl(cipher, true, bench::body(size), size - 1,
                [&secret](const unsigned char* out, int count) { secret.insert(secret.end(), out, out + count); });
    return secret;
}

template <class Stream> void stream(benchmark::State& state, Cipher cipher, bool encrypt) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto bytes = inputOf(cipher, encrypt, size);
    for (auto _ : state) {
        Norvane::NullMediaOut target;
        Stream out(cipher, key, iv);
        out.attach(target);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        out.end();
        benchmark::DoNotOptimize(target.tell());
    }
    bench::countBytes(state);
}

void raw(benchmark::State& state, Cipher cipher, bool encrypt) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto bytes = inputOf(cipher, encrypt, size);
    for (auto _ : state) {
        callOpenssl(cipher, encrypt, bytes, size,
                    [](const unsigned char* out, int) { benchmark::DoNotOptimize(*out); });
    }
    bench::countBytes(state);
}

#define BENCH_CIPHER(cipher)                                                                                           \
    BENCHMARK_CAPTURE(stream<EncrypterMediaOut>, encrypt_##cipher, cipher, true)->Apply(bench::sizes);                 \
    BENCHMARK_CAPTURE(raw, encrypt_##cipher, cipher, true)->Apply(bench::sizes);                                       \
    BENCHMARK_CAPTURE(stream<DecrypterMediaOut>, decrypt_##cipher, cipher, false)->Apply(bench::sizes);                \
    BENCHMARK_CAPTURE(raw, decrypt_##cipher, cipher, false)->Apply(bench::sizes)

BENCH_CIPHER(AES_256_CBC);
BENCH_CIPHER(AES_128_CBC);
BENCH_CIPHER(DES_EDE3_CBC);
BENCH_CIPHER(IDEA_CBC);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
