#include "support/Workspace.h"

#include "support/Places.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

namespace interop {

namespace fs = std::filesystem;
using namespace norvauthority;

Workspace::Workspace() : m_directory((fs::temp_directory_path() / "norvcrypt-XXXXXX").string()) {
    if (mkdtemp(m_directory.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
}

Workspace::~Workspace() {
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
}

std::string Workspace::write(const std::string& name, const std::string& content) const {
    std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path(name));
    // A key that others can read is warned of.
    if (name.ends_with("key"))
        fs::permissions(path(name), fs::perms::owner_read | fs::perms::owner_write);
    return path(name);
}

std::string Workspace::write(const std::string& name, const Bytes& content) const {
    return write(name, std::string(content.begin(), content.end()));
}

std::string Workspace::read(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

bool Workspace::exists(const std::string& name) const {
    return fs::exists(path(name));
}

std::vector<std::string> Workspace::names() const {
    std::vector<std::string> all;
    for (const auto& entry : fs::directory_iterator(m_directory))
        all.push_back(entry.path().filename().string());
    std::sort(all.begin(), all.end());
    return all;
}

unsigned int Workspace::mode(const std::string& name) const {
    struct stat status {};
    if (stat(path(name).c_str(), &status) != 0)
        throw std::runtime_error("no " + path(name));
    return status.st_mode & 07777U;
}

namespace {

/// A key of the tests, made once for all of them since RSA and DSA keys take long.
Key storedKey(const std::string& name) {
    return Key::fromPem(norvtest::storedKeyPem(name));
}

Identity person(const std::string& name, const Key& key, const std::string& serial) {
    return issue({.subject = {{"C", "DE"}, {"O", "Interop"}, {"CN", name}},
                  .key = key,
                  .issuer = &root(),
                  .serial = serial,
                  .keyUsage = 0xE0,
                  .extendedKeyUsage = {"emailProtection"},
                  .alternativeNames = {GeneralName::email(name + "@example.org")}});
}

} // namespace

const Identity& root() {
    static const Identity identity = issue({.subject = {{"C", "DE"}, {"O", "Interop"}, {"CN", "Interop Root"}},
                                            .key = storedKey("authority"),
                                            .serial = "1001",
                                            .ca = true,
                                            .keyUsage = 0x06});
    return identity;
}

const Identity& alice() {
    static const Identity identity = person("alice", storedKey("alice"), "2001");
    return identity;
}

const Identity& bob() {
    static const Identity identity = person("bob", storedKey("bob"), "2004");
    return identity;
}

const Identity& carol() {
    static const Identity identity = person("carol", storedKey("carol"), "2005");
    return identity;
}

const Identity& dora() {
    static const Identity identity = person("dora", storedKey("dora"), "2002");
    return identity;
}

const Identity& erin() {
    static const Identity identity = person("erin", storedKey("eve"), "2003");
    return identity;
}

std::string sampleBody() {
    std::string body = "Content-Type: text/plain\r\n\r\nDear B\xC3\xB6rje,\nline ends differ\r\n";
    for (int octet = 0; octet < 256; ++octet)
        body += static_cast<char>(octet);
    while (body.size() < 20000)
        body += "a longer body does not fit one buffer\r\n";
    return body;
}

std::optional<std::string> rfc4134(const std::string& name) {
    const fs::path file = norvtest::samplePath("rfc4134") / name;
    return fs::exists(file) ? std::optional(file.string()) : std::nullopt;
}

std::string sha256(const std::string& content) {
    Bytes value(32);
    if (EVP_Digest(content.data(), content.size(), value.data(), nullptr, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256");
    return toHex(value);
}

} // namespace interop
