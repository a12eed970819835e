// The encrypting and the decrypting stream beside EVP_CipherUpdate.
#include "Support.h"

#include <norvcrypto/Encryption.h>

#include <openssl/evp.h>

#include <string>
#include <utility>

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
    Norvane::NullMediaOut target;
    for (auto _ : state) {
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

void add(const std::string& name, void (*work)(benchmark::State&, Cipher, bool), Cipher cipher, bool encrypt) {
    benchmark::RegisterBenchmark(name.c_str(), [work, cipher, encrypt](benchmark::State& state) {
        work(state, cipher, encrypt);
    })->Apply(bench::sizes);
}

} // namespace

int main(int argc, char** argv) {
    for (const auto& [name, cipher] : {std::pair{"Aes256", AES_256_CBC}, std::pair{"Aes128", AES_128_CBC},
                                       std::pair{"TripleDes", DES_EDE3_CBC}, std::pair{"Idea", IDEA_CBC}}) {
        add(std::string("encrypt") + name + "Stream", stream<EncrypterMediaOut>, cipher, true);
        add(std::string("encrypt") + name + "Raw", raw, cipher, true);
        add(std::string("decrypt") + name + "Stream", stream<DecrypterMediaOut>, cipher, false);
        add(std::string("decrypt") + name + "Raw", raw, cipher, false);
    }
    return bench::run(argc, argv);
}
