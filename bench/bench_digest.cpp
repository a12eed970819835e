// The digest stream beside EVP_DigestUpdate.
#include "Support.h"

#include <norvcrypto/Hasher.h>

#include <openssl/evp.h>

using namespace Norvane::Crypto;

namespace {

void digestStream(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    for (auto _ : state) {
        HasherMediaOut out(Hasher::SHA256);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        out.end();
        benchmark::DoNotOptimize(out.hasher()->digest().at(0));
    }
    bench::countBytes(state);
}
BENCHMARK(digestStream)->Apply(bench::sizes);

void digestRaw(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    for (auto _ : state) {
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
            EVP_DigestUpdate(context, data, length);
        });
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_DigestFinal_ex(context, digest, &length);
        benchmark::DoNotOptimize(digest[0]);
        EVP_MD_CTX_free(context);
    }
    bench::countBytes(state);
}
BENCHMARK(digestRaw)->Apply(bench::sizes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
