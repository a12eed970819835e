// Reading a certificate and asking it the usual questions, beside the OpenSSL calls.
#include "Support.h"

#include <openssl/x509.h>
#include <openssl/x509v3.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

void certificateRead(benchmark::State& state) {
    const Buffer der = bench::buffer(bench::signer().certificate.der);
    for (auto _ : state) {
        const NVX509::RefCertificate certificate = NVX509::CertificateFactory().readDER(der);
        benchmark::DoNotOptimize(certificate->keyUsage());
    }
}
BENCHMARK(certificateRead);

void certificateReadRaw(benchmark::State& state) {
    const auto& der = bench::signer().certificate.der;
    for (auto _ : state) {
        const unsigned char* at = der.data();
        X509* certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
        X509_check_purpose(certificate, -1, 0);
        benchmark::DoNotOptimize(X509_get_key_usage(certificate));
        X509_free(certificate);
    }
}
BENCHMARK(certificateReadRaw);

void certificateQuestions(benchmark::State& state) {
    const Buffer der = bench::buffer(bench::signer().certificate.der);
    for (auto _ : state) {
        const NVX509::RefCertificate certificate = NVX509::CertificateFactory().readDER(der);
        benchmark::DoNotOptimize(certificate->key());
        benchmark::DoNotOptimize(certificate->serialNumber().encoded().length());
        benchmark::DoNotOptimize(certificate->isSelfSigned());
        benchmark::DoNotOptimize(certificate->subjectAlternativeName()->names().size());
        benchmark::DoNotOptimize(certificate->validityPeriod().valid(0));
    }
}
BENCHMARK(certificateQuestions);

void certificateQuestionsRaw(benchmark::State& state) {
    const auto& der = bench::signer().certificate.der;
    for (auto _ : state) {
        const unsigned char* at = der.data();
        X509* certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
        X509_check_purpose(certificate, -1, 0);
        EVP_PKEY* key = X509_get_pubkey(certificate);
        benchmark::DoNotOptimize(key);
        EVP_PKEY_free(key);
        unsigned char* serial = nullptr;
        benchmark::DoNotOptimize(i2d_ASN1_INTEGER(X509_get0_serialNumber(certificate), &serial));
        OPENSSL_free(serial);
        benchmark::DoNotOptimize(X509_NAME_cmp(X509_get_subject_name(certificate), X509_get_issuer_name(certificate)));
        auto* names =
            static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
        benchmark::DoNotOptimize(sk_GENERAL_NAME_num(names));
        GENERAL_NAMES_free(names);
        benchmark::DoNotOptimize(X509_cmp_time(X509_get0_notBefore(certificate), nullptr));
        benchmark::DoNotOptimize(X509_cmp_time(X509_get0_notAfter(certificate), nullptr));
        X509_free(certificate);
    }
}
BENCHMARK(certificateQuestionsRaw);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
