// The verifying stream beside the EVP calls that check the same signature over the same bytes.
#include "Support.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/evp.h>
#include <openssl/pkcs7.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

Buffer signedStructure(std::size_t size) {
    MemoryMediaOut target;
    CMS::SignerMediaOut out(Hasher::SHA256, bench::signerPair());
    out.attach(target);
    out.write(bench::body(size).data(), static_cast<unsigned int>(size));
    out.end();
    return target.content();
}

void verifyStream(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    const Buffer der = signedStructure(size);
    const NVX509::RefCertificate certificate = bench::signerPair()->certificate;
    for (auto _ : state) {
        MemoryMediaIn source(der);
        CMS::CMSVerifier verifier(source);
        const CMS::SignedData content = CMS::signedData(verifier.contentInfo());
        const CMS::SignerInfo& signer = content.signerInfo().front();
        VerifierMediaOut out = verifier.verifierMediaOut(signer);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) { out.write(data, length); });
        if (!verifier.isValid(out, signer, certificate)) {
            state.SkipWithError("the signature does not verify");
        }
    }
    bench::countBytes(state);
}
BENCHMARK(verifyStream)->Apply(bench::sizes);

void verifyRaw(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& bytes = bench::body(size);
    const Buffer der = signedStructure(size);
    const norvauthority::X509Ptr certificate = bench::signer().certificate.x509();
    for (auto _ : state) {
        const unsigned char* at = der.data();
        PKCS7* structure = d2i_PKCS7(nullptr, &at, static_cast<long>(der.length()));
        PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(structure), 0);
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EVP_VerifyInit_ex(context, EVP_get_digestbyobj(signer->digest_alg->algorithm), nullptr);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
            EVP_VerifyUpdate(context, data, length);
        });
        EVP_PKEY* key = X509_get_pubkey(certificate.get());
        if (EVP_VerifyFinal(context, signer->enc_digest->data, static_cast<unsigned int>(signer->enc_digest->length),
                            key) != 1) {
            state.SkipWithError("the signature does not verify");
        }
        EVP_PKEY_free(key);
        EVP_MD_CTX_free(context);
        PKCS7_free(structure);
    }
    bench::countBytes(state);
}
BENCHMARK(verifyRaw)->Apply(bench::sizes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
