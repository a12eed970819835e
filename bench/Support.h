#pragma once

/// \file
/// What the benchmarks share: one identity, bodies of a size, and the usual sizes.

#include "Bodies.h"

#include <authority/Authority.h>
#include <norvcmsg/Buffer.h>
#include <norvcrypto/Certificate.h>
#include <norvcrypto/Crypto.h>
#include <norvcrypto/KeyStore.h>

#include <benchmark/benchmark.h>

namespace bench {

inline Norvane::Buffer buffer(const norvauthority::Bytes& bytes) {
    return {bytes.data(), static_cast<unsigned int>(bytes.size()), false};
}

inline const norvauthority::Identity& authority() {
    static const auto identity = norvauthority::issue(
        {.subject = {{"C", "DE"}, {"O", "Bench"}, {"CN", "Root"}}, .key = norvauthority::Key::rsa(3072), .ca = true});
    return identity;
}

inline const norvauthority::Identity& signer() {
    static const auto identity =
        norvauthority::issue({.subject = {{"C", "DE"}, {"O", "Bench"}, {"OU", "Mail"}, {"CN", "Alice"}},
                              .key = norvauthority::Key::rsa(3072),
                              .issuer = &authority(),
                              .serial = "1234",
                              .keyUsage = 0x80U,
                              .alternativeNames = {norvauthority::GeneralName::email("alice@example.org")}});
    return identity;
}

/// The signer as the library holds it.
inline Norvane::Crypto::NVX509::KeyCertificatePair signerPair() {
    using namespace Norvane::Crypto;
    const NVX509::RefCertificate certificate =
        NVX509::CertificateFactory()(signer().certificate.x509().release(), true);
    return {RefKey(new PrivateKey(signer().key.newReference())), certificate};
}

/// 1 KB, 64 KB, 1 MB, 64 MB.
inline void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMicrosecond);
}

/// Counts the bytes of a run for the throughput column.
inline void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

inline int run(int argc, char** argv) {
    Norvane::Crypto::initialize();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench
