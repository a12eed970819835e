#include "demo/Demo.h"

#include <openssl/pkcs12.h>

#include <filesystem>
#include <memory>
#include <system_error>

namespace norvcrypt {

namespace {

constexpr const char* passphrase = "only for the demonstration";

struct FreeingPkcs12 {
    void operator()(PKCS12* structure) const noexcept { PKCS12_free(structure); }
};

/// Key and certificate, encrypted with AES-256 as OpenSSL does by default.
std::string pkcs12Of(const norvauthority::Identity& identity) {
    const norvauthority::X509Ptr certificate = identity.certificate.x509();
    const std::unique_ptr<PKCS12, FreeingPkcs12> structure(
        PKCS12_create(passphrase, nullptr, identity.key.get(), certificate.get(), nullptr, 0, 0, 0, 0, 0));
    unsigned char* der = nullptr;
    const int length = structure ? i2d_PKCS12(structure.get(), &der) : 0;
    if (length <= 0)
        throw Failure("cannot make a PKCS#12 file");
    std::string bytes(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return bytes;
}

void makeFolder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (!error) // a store in which everybody may write would be refused
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, error);
    if (error)
        throw Failure("cannot make the directory " + path, error.value());
}

} // namespace

void Demo::makePkcs12Files() {
    put("secret", std::string(passphrase) + "\n", OutputFile::Access::owner);
    for (const auto& [name, identity] : {std::pair{"alice", &m_alice}, {"carol", &m_carol}}) {
        const std::string file = std::string(name) + ".p12";
        put(file, pkcs12Of(*identity), OutputFile::Access::owner);
        tell("   " + path(file) + "  key and certificate in one PKCS#12 file");
        command("openssl pkcs12 -in " + argument(file) + " -passin file:" + argument("secret") + " -noout");
    }
    tell("   " + path("secret") + "  their passphrase");
}

void Demo::makeStore() {
    makeFolder(path("identities"));
    for (const auto& [name, identity] : {std::pair{"alice", &m_alice}, {"bob", &m_bob}, {"carol", &m_carol}}) {
        const std::string folder = std::string("identities/") + name;
        makeFolder(path(folder));
        put(folder + "/key.pem", identity->key.pkcs8Pem(), OutputFile::Access::owner);
        put(folder + "/cert.pem", identity->certificate.pem());
        put(folder + "/chain.pem", m_authority.certificate.pem());
        put(folder + "/owners.txt", std::string(name) + "@example.org\n");
    }
    tell("   " + path("identities") + "  a store, in which norvcrypt finds the three by their mail addresses");
}

void Demo::keepIdentities() {
    tell("10. The same people in other forms, for commands of your own");
    makePkcs12Files();
    makeStore();
    makeLetter();
    makeServer();
}

} // namespace norvcrypt
