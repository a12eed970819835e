// The verifying stream beside the EVP calls that check the same signature over the same bytes: one digest and one operation
// with a key that is ready for it. No structure is decoded on the raw side.
#include "Support.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/evp.h>
#include <openssl/pkcs7.h>

#include <array>

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
    const unsigned char* at = der.data();
    PKCS7* structure = d2i_PKCS7(nullptr, &at, static_cast<long>(der.length()));
    const ASN1_OCTET_STRING* signature = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(structure), 0)->enc_digest;
    const norvauthority::X509Ptr certificate = bench::signer().certificate.x509();
    EVP_PKEY_CTX* key = EVP_PKEY_CTX_new(X509_get0_pubkey(certificate.get()), nullptr);
    EVP_PKEY_verify_init(key);
    EVP_PKEY_CTX_set_rsa_padding(key, RSA_PKCS1_PADDING);
    EVP_PKEY_CTX_set_signature_md(key, EVP_sha256());
    EVP_MD* algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    for (auto _ : state) {
        EVP_DigestInit_ex(context, algorithm, nullptr);
        bench::inPieces(bytes, size, [&](const unsigned char* data, unsigned int length) {
            EVP_DigestUpdate(context, data, length);
        });
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned int length = 0;
        EVP_DigestFinal_ex(context, digest.data(), &length);
        if (EVP_PKEY_verify(key, signature->data, static_cast<std::size_t>(signature->length), digest.data(), length) !=
            1) {
            state.SkipWithError("the signature does not verify");
        }
    }
    EVP_MD_CTX_free(context);
    EVP_MD_free(algorithm);
    EVP_PKEY_CTX_free(key);
    PKCS7_free(structure);
    bench::countBytes(state);
}
BENCHMARK(verifyRaw)->Apply(bench::sizes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
