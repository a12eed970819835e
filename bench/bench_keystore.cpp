// Look-ups in a directory key store against its size, and loading one, beside what OpenSSL's own calls take.
#include "Support.h"

#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

using namespace Norvane::Crypto;
using Norvane::EmailAddress;

namespace {

struct Freeing {
    void operator()(BIO* bio) const noexcept { BIO_free(bio); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};

/// A store of people: each with an address, a domain of its own, and a certificate under one authority.
class Store {
public:
    explicit Store(int people) {
        std::string name =
            (std::filesystem::path(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") / "norv-bench-XXXXXX").string();
        m_path = mkdtemp(name.data());
        const auto key = norvauthority::Key::ec();
        const auto root = norvauthority::issue({.subject = {{"CN", "Root"}}, .key = key, .ca = true});
        const std::string keyPem = key.pkcs8Pem();
        m_stack = sk_X509_new_null();
        for (int i = 0; i < people; ++i) {
            const std::string number = std::to_string(i);
            const auto person = norvauthority::issue(
                {.subject = {{"CN", "Person " + number}}, .key = key, .issuer = &root, .serial = "1" + number});
            write(number, person.certificate.pem(), keyPem);
            sk_X509_push(m_stack, person.certificate.x509().release());
        }
        m_directory = NVX509::RefDirectoryKeyStore(m_path, NVX509::DirectoryKeyStore::Reading::ahead);
        std::filesystem::remove_all(m_path);
    }
    ~Store() { sk_X509_pop_free(m_stack, X509_free); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// The store of a size, made once.
    static const Store& of(benchmark::State& state) {
        static std::map<std::int64_t, std::unique_ptr<Store>> stores;
        auto& store = stores[state.range(0)];
        if (!store) {
            store = std::make_unique<Store>(static_cast<int>(state.range(0)));
        }
        return *store;
    }

    [[nodiscard]] const NVX509::RefDirectoryKeyStore& directory() const { return m_directory; }
    [[nodiscard]] STACK_OF(X509) * stack() const { return m_stack; }
    /// A person in the middle.
    [[nodiscard]] std::string number() const { return std::to_string(m_directory->contents()->identities.size() / 2); }

private:
    void write(const std::string& number, const std::string& certificate, const std::string& key) const {
        const std::string folder = m_path + "/" + number;
        mkdir(folder.c_str(), 0700);
        std::ofstream(folder + "/cert.pem") << certificate;
        std::ofstream(folder + "/key.pem") << key;
        chmod((folder + "/key.pem").c_str(), 0600);
        std::ofstream(folder + "/owners.txt") << "p" << number << "@example.com\n*@d" << number << ".example.org\n";
    }

    std::string m_path;
    STACK_OF(X509) * m_stack;
    NVX509::RefDirectoryKeyStore m_directory;
};

void storeSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1)->Arg(100)->Arg(10000);
}

void byAddress(benchmark::State& state, const std::string& prefix, const std::string& suffix) {
    const auto& store = Store::of(state);
    const auto address = EmailAddress::rfc5321Parse(prefix + store.number() + suffix, false);
    for (auto _ : state) {
        const auto pair = store.directory()->findSigningKey(address);
        if (pair->certificate.isNull()) {
            state.SkipWithError("not found");
        }
    }
}

void findAddress(benchmark::State& state) {
    byAddress(state, "p", "@example.com");
}
BENCHMARK(findAddress)->Apply(storeSizes);

void findDomain(benchmark::State& state) {
    byAddress(state, "x@d", ".example.org");
}
BENCHMARK(findDomain)->Apply(storeSizes);

// What a store without an index does: every pattern is tried.
void findAddressRaw(benchmark::State& state) {
    const auto& store = Store::of(state);
    const std::string address = "x@d" + store.number() + ".example.org";
    const auto contents = store.directory()->contents();
    for (auto _ : state) {
        for (const auto& place : contents->precedence) {
            benchmark::DoNotOptimize(contents->identities[place.identity].owners[place.owner].pattern.matches(address));
        }
    }
}
BENCHMARK(findAddressRaw)->Apply(storeSizes);

void findSerial(benchmark::State& state) {
    const auto& store = Store::of(state);
    const auto contents = store.directory()->contents();
    const auto& wanted = contents->identities[contents->identities.size() / 2].certificate;
    for (auto _ : state) {
        if (store.directory()->find(wanted->issuer(), wanted->serialNumber())->certificate.isNull()) {
            state.SkipWithError("not found");
        }
    }
}
BENCHMARK(findSerial)->Apply(storeSizes);

void findSerialRaw(benchmark::State& state) {
    const auto& store = Store::of(state);
    X509* wanted = sk_X509_value(store.stack(), sk_X509_num(store.stack()) / 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            X509_find_by_issuer_and_serial(store.stack(), X509_get_issuer_name(wanted), X509_get_serialNumber(wanted)));
    }
}
BENCHMARK(findSerialRaw)->Apply(storeSizes);

/// A folder with one identity.
const std::string& oneIdentity() {
    static const std::string path = [] {
        std::string name = (std::filesystem::temp_directory_path() / "norv-bench-XXXXXX").string();
        const std::string root = mkdtemp(name.data());
        mkdir((root + "/a").c_str(), 0700);
        std::ofstream(root + "/a/cert.pem") << bench::signer().certificate.pem();
        std::ofstream(root + "/a/key.pem") << bench::signer().key.pkcs8Pem();
        chmod((root + "/a/key.pem").c_str(), 0600);
        std::ofstream(root + "/a/owners.txt") << "alice@example.org\n";
        return root;
    }();
    return path;
}

void load(benchmark::State& state) {
    const auto& path = oneIdentity();
    for (auto _ : state) {
        if (!NVX509::RefDirectoryKeyStore(path)->contents()->identities.at(0).hasKey) {
            state.SkipWithError("no key");
        }
    }
}
BENCHMARK(load);

// OpenSSL reads the two files and checks that they belong together; nothing looks at permissions.
void loadRaw(benchmark::State& state) {
    const std::string certificateFile = oneIdentity() + "/a/cert.pem";
    const std::string keyFile = oneIdentity() + "/a/key.pem";
    for (auto _ : state) {
        const std::unique_ptr<BIO, Freeing> certificateBio(BIO_new_file(certificateFile.c_str(), "r"));
        const std::unique_ptr<BIO, Freeing> keyBio(BIO_new_file(keyFile.c_str(), "r"));
        const std::unique_ptr<X509, Freeing> certificate(
            PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
        const std::unique_ptr<EVP_PKEY, Freeing> key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
        if (X509_check_private_key(certificate.get(), key.get()) != 1) {
            state.SkipWithError("not a pair");
        }
    }
}
BENCHMARK(loadRaw);

} // namespace

int main(int argc, char** argv) {
    const int status = bench::run(argc, argv);
    std::filesystem::remove_all(oneIdentity());
    return status;
}
