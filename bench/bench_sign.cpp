// The signing stream beside the PKCS7 calls that make the same structure.
#include "Support.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/bio.h>
#include <openssl/pkcs7.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

void signStream(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    const NVX509::KeyCertificatePair pair = bench::signerPair();
    NullMediaOut target;
    for (auto _ : state) {
        CMS::SignerMediaOut out(Hasher::SHA256, pair);
        out.attach(target);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        out.end();
    }
    bench::countBytes(state);
}
BENCHMARK(signStream)->Apply(bench::sizes);

void signRaw(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    const norvauthority::X509Ptr certificate = bench::signer().certificate.x509();
    EVP_PKEY* key = bench::signer().key.get();
    for (auto _ : state) {
        PKCS7* structure = PKCS7_new();
        PKCS7_set_type(structure, NID_pkcs7_signed);
        PKCS7_add_signature(structure, certificate.get(), key, EVP_sha256());
        PKCS7_add_certificate(structure, certificate.get());
        PKCS7_content_new(structure, NID_pkcs7_data);
        PKCS7_set_detached(structure, 1);
        BIO* chain = PKCS7_dataInit(structure, nullptr);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
            BIO_write(chain, data, static_cast<int>(length));
        });
        PKCS7_dataFinal(structure, chain);
        BIO* out = BIO_new(BIO_s_null());
        i2d_PKCS7_bio(out, structure);
        BIO_free(out);
        BIO_free_all(chain);
        PKCS7_free(structure);
    }
    bench::countBytes(state);
}
BENCHMARK(signRaw)->Apply(bench::sizes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
