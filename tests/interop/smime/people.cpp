// Writes a root and the people of the exchanges of S/MIME messages into a folder, each as NAME.pem and NAME.key.
#include "support/Places.h"

#include <authority/Authority.h>

#include <fstream>
#include <iostream>
#include <string>

using namespace norvauthority;

namespace {

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    if (!(file << text).flush())
        throw std::runtime_error("cannot write " + path);
}

Key storedKey(const std::string& name) {
    return Key::fromPem(norvtest::storedKeyPem(name));
}

void writePeople(const std::string& folder) {
    const Identity root = issue({.subject = {{"CN", "Mail Root"}, {"O", "Exchange"}},
                                 .key = storedKey("authority"),
                                 .serial = "1",
                                 .ca = true,
                                 .keyUsage = 0x06});
    write(folder + "/root.pem", root.certificate.pem());
    const auto person = [&](const std::string& name, const Key& key, const std::string& serial, unsigned int usage) {
        const Identity made = issue({.subject = {{"CN", name}, {"O", "Exchange"}},
                                     .key = key,
                                     .issuer = &root,
                                     .serial = serial,
                                     .keyUsage = usage,
                                     .extendedKeyUsage = {"emailProtection"},
                                     .alternativeNames = {GeneralName::email(name + "@example.org")}});
        write(folder + "/" + name + ".pem", made.certificate.pem());
        write(folder + "/" + name + ".key", made.key.pkcs8Pem());
    };
    person("alice", storedKey("alice"), "a11ce", 0xA0);
    person("bob", storedKey("bob"), "b0b", 0xA0);
    person("erin", Key::ec("P-256"), "e111", 0x88);
    person("frank", Key::ed25519(), "f4a0", 0x80);
    person("grace", Key::ec("P-384"), "97ace", 0x88);
    person("heidi", Key::ec("P-521"), "4e1d1", 0x88);
}

} // namespace

int main(int argc, char* argv[]) {
    try {
        if (argc != 2)
            throw std::runtime_error("give a folder");
        writePeople(argv[1]);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
