// The three look-ups of a set of bindings against its size, beside the same work on plain containers: a map, the
// patterns alone, the OpenSSL comparisons alone. What is looked for stands last, so that the walks are whole ones.
#include "Support.h"

#include <norvcrypto/CertBindingSet.h>

#include <openssl/x509.h>

#include <map>
#include <string>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// A binding over the pair that all of them share.
class Sharing : public CertBinding {
public:
    Sharing(int id, const std::string& pattern)
        : CertBinding(id, StringPattern(pattern), X509, KeyUsage{}, static_cast<unsigned int>(id), 0) {}
    NVX509::KeyCertificatePair keyPairX509() const override {
        static const auto pair = bench::signerPair();
        return pair;
    }
};

std::string owner(int id) {
    return "user" + std::to_string(id) + "@example.com";
}

const RefCertBindingSet& bindings(benchmark::State& state) {
    static std::map<int, RefCertBindingSet> sets;
    const auto size = static_cast<int>(state.range(0));
    RefCertBindingSet& set = sets[size];
    if (set.isNull()) {
        set = RefCertBindingSet("bench");
        for (int id = 0; id < size; ++id) {
            set->add(RefCertBinding(new Sharing(id, owner(id))));
        }
    }
    return set;
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1)->Arg(1'000)->Arg(100'000);
}

void bindingById(benchmark::State& state) {
    const auto& set = bindings(state);
    const auto last = static_cast<int>(state.range(0)) - 1;
    for (auto _ : state) {
        int id = last;
        benchmark::DoNotOptimize(id);
        benchmark::DoNotOptimize(set->find(id).isNull());
    }
}
BENCHMARK(bindingById)->Apply(sizes);

void bindingByIdRaw(benchmark::State& state) {
    std::map<int, int> plain;
    const auto last = static_cast<int>(state.range(0)) - 1;
    for (int id = 0; id <= last; ++id) {
        plain[id] = id;
    }
    for (auto _ : state) {
        int id = last;
        benchmark::DoNotOptimize(id);
        benchmark::DoNotOptimize(plain.find(id)->second);
    }
}
BENCHMARK(bindingByIdRaw)->Apply(sizes);

void bindingByOwner(benchmark::State& state) {
    const auto& set = bindings(state);
    const auto address = EmailAddress::rfc5321Parse(owner(static_cast<int>(state.range(0)) - 1), false);
    CertBindingOwnerFilter filter(address);
    for (auto _ : state) {
        benchmark::DoNotOptimize(set->find(filter).isNull());
    }
}
BENCHMARK(bindingByOwner)->Apply(sizes);

void bindingByOwnerRaw(benchmark::State& state) {
    std::vector<StringPattern> patterns;
    const auto last = static_cast<int>(state.range(0)) - 1;
    for (int id = 0; id <= last; ++id) {
        patterns.emplace_back(owner(id));
    }
    const std::string address = owner(last);
    for (auto _ : state) {
        std::size_t at = 0;
        while (!patterns[at].matches(address)) {
            ++at;
        }
        benchmark::DoNotOptimize(at);
    }
}
BENCHMARK(bindingByOwnerRaw)->Apply(sizes);

/// A serial number that no binding has, of the issuer that all of them have: both comparisons are made for each.
const NVX509::RefCertificate& unbound() {
    static const auto certificate = NVX509::CertificateFactory().readDER(bench::buffer(
        norvauthority::issue(
            {.subject = {{"CN", "Bob"}}, .key = bench::signer().key, .issuer = &bench::authority(), .serial = "77"})
            .certificate.der));
    return certificate;
}

void bindingByCertificate(benchmark::State& state) {
    const auto& set = bindings(state);
    CertBindingCertificateFilter filter(unbound()->issuer(), unbound()->serialNumber());
    for (auto _ : state) {
        benchmark::DoNotOptimize(set->find(filter).isNull());
    }
}
BENCHMARK(bindingByCertificate)->Apply(sizes);

void bindingByCertificateRaw(benchmark::State& state) {
    const auto pair = bench::signerPair();
    const std::vector<X509*> certificates(static_cast<std::size_t>(state.range(0)), pair->certificate);
    const X509_NAME* issuer = X509_get_issuer_name(unbound());
    const ASN1_INTEGER* serial = X509_get0_serialNumber(unbound());
    for (auto _ : state) {
        bool found = false;
        for (X509* certificate : certificates) {
            found = found || (X509_NAME_cmp(issuer, X509_get_issuer_name(certificate)) == 0 &&
                              ASN1_INTEGER_cmp(serial, X509_get0_serialNumber(certificate)) == 0);
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(bindingByCertificateRaw)->Apply(sizes);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
