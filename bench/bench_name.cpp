// Printing and parsing a distinguished name, beside OpenSSL's own printer and entry calls.
#include "Support.h"

#include <norvcrypto/DistinguishedName.h>

#include <openssl/bio.h>
#include <openssl/x509.h>

#include <array>
#include <string>
#include <utility>

using namespace Norvane::Crypto;

namespace {

constexpr std::array<std::pair<const char*, const char*>, 5> entries{
    {{"C", "DE"}, {"ST", "Bavaria"}, {"O", "Example Organisation"}, {"OU", "Mail Security"}, {"CN", "Alice Example"}}};

X509_NAME* makeName() {
    X509_NAME* name = X509_NAME_new();
    for (const auto& [type, value] : entries) {
        X509_NAME_add_entry_by_txt(name, type, MBSTRING_ASC, reinterpret_cast<const unsigned char*>(value), -1, -1, 0);
    }
    return name;
}

void namePrint(benchmark::State& state) {
    X509_NAME* name = makeName();
    for (auto _ : state) {
        benchmark::DoNotOptimize(NVX509::DistinguishedName(name).asString().size());
    }
    X509_NAME_free(name);
}
BENCHMARK(namePrint);

void namePrintRaw(benchmark::State& state) {
    X509_NAME* name = makeName();
    for (auto _ : state) {
        BIO* out = BIO_new(BIO_s_mem());
        benchmark::DoNotOptimize(X509_NAME_print_ex(out, name, 0, XN_FLAG_RFC2253));
        BIO_free(out);
    }
    X509_NAME_free(name);
}
BENCHMARK(namePrintRaw);

void nameParse(benchmark::State& state) {
    const std::string text = "CN=Alice Example,OU=Mail Security,O=Example Organisation,ST=Bavaria,C=DE";
    for (auto _ : state) {
        benchmark::DoNotOptimize(NVX509::DistinguishedName(text).hash());
    }
}
BENCHMARK(nameParse);

// OpenSSL has no parser for this text; its calls that build the same name are the floor.
void nameParseRaw(benchmark::State& state) {
    for (auto _ : state) {
        X509_NAME* name = makeName();
        benchmark::DoNotOptimize(X509_NAME_hash_ex(name, nullptr, nullptr, nullptr));
        X509_NAME_free(name);
    }
}
BENCHMARK(nameParseRaw);

} // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
