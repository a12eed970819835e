// Reading a revocation list of 100,000 entries, beside the OpenSSL call.
#include "Support.h"

#include <norvcrypto/CertificateRevocationList.h>

#include <openssl/x509.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

const norvauthority::Bytes& list() {
    static const auto der =
        norvauthority::issueList({.issuer = &bench::authority(), .numbered = 100000, .crlNumber = "1"}).der;
    return der;
}

void listRead(benchmark::State& state) {
    const Buffer der = bench::buffer(list());
    for (auto _ : state) {
        const NVX509::RefCertificateRevocationList revoked = NVX509::CertificateRevocationListFactory().readDER(der);
        benchmark::DoNotOptimize(revoked->crlNumber().asInt());
    }
}
BENCHMARK(listRead)->Unit(benchmark::kMillisecond);

void listReadRaw(benchmark::State& state) {
    const auto& der = list();
    for (auto _ : state) {
        const unsigned char* at = der.data();
        X509_CRL* revoked = d2i_X509_CRL(nullptr, &at, static_cast<long>(der.size()));
        auto* number = static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(revoked, NID_crl_number, nullptr, nullptr));
        benchmark::DoNotOptimize(ASN1_INTEGER_get(number));
        ASN1_INTEGER_free(number);
        X509_CRL_free(revoked);
    }
}
BENCHMARK(listReadRaw)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
