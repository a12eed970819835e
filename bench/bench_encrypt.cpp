// The encrypting stream beside the EVP and RSA calls that do the same work: a random key and vector, the key encrypted
// for each recipient, the body encrypted into memory. No structure is made on the raw side.
#include "Envelope.h"

#include <norvcmsg/Media.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

void encryptStream(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    const std::list<NVX509::RefCertificate> recipients(static_cast<std::size_t>(state.range(1)), bench::certificate());
    NullMediaOut target;
    for (auto _ : state) {
        CMS::EncrypterMediaOut out(AES_256_CBC, recipients);
        out.attach(target);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        out.end();
    }
    bench::countBytes(state);
}
BENCHMARK(encryptStream)->Apply(bench::envelopes);

void encryptRaw(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    for (auto _ : state) {
        std::vector<unsigned char> out(size + EVP_MAX_BLOCK_LENGTH);
        unsigned char key[32];
        unsigned char vector[16];
        RAND_bytes(key, sizeof key);
        RAND_bytes(vector, sizeof vector);
        for (std::int64_t i = 0; i < state.range(1); ++i) {
            benchmark::DoNotOptimize(bench::wrap(bench::signer().key.get(), key, sizeof key));
        }
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, key, vector);
        std::size_t at = 0;
        int count = 0;
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
            EVP_EncryptUpdate(context, out.data() + at, &count, data, static_cast<int>(length));
            at += static_cast<std::size_t>(count);
        });
        EVP_EncryptFinal_ex(context, out.data() + at, &count);
        EVP_CIPHER_CTX_free(context);
        benchmark::DoNotOptimize(out.data());
    }
    bench::countBytes(state);
}
BENCHMARK(encryptRaw)->Apply(bench::envelopes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
