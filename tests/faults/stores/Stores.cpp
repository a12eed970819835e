#include "Operations.h"

#include "support/Pkcs12.h"
#include "support/TemporaryFolder.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace faultsofstores {

using Norvane::EmailAddress;

namespace {

/// Two identities for one address: alice's is the closer one.
class Identities {
public:
    Identities() {
        add("alice", "alice@x.example\n", alice());
        add("anybody", "*\n", bob());
        write("anybody/chain.pem", identities().authority.certificate.pem(), 0644);
    }
    [[nodiscard]] std::string path(const std::string& name = "") const { return m_folder.path("store/" + name); }
    void write(const std::string& name, const std::string& content, mode_t mode) const {
        std::ofstream(path(name), std::ios::binary) << content;
        chmod(path(name).c_str(), mode);
    }

private:
    void add(const std::string& name, const std::string& owners, const Identity& who) const {
        std::filesystem::create_directories(path(name));
        chmod(path().c_str(), 0755);
        chmod(path(name).c_str(), 0755);
        write(name + "/cert.pem", who.certificate.pem(), 0644);
        write(name + "/owners.txt", owners, 0644);
        write(name + "/passphrase", "secret\n", 0600);
        write(name + "/key.pem", who.key.encryptedPem("secret"), 0600);
    }
    norvtest::TemporaryFolder m_folder;
};

EmailAddress address(const std::string& text) {
    return EmailAddress::rfc5321Parse(text, true);
}

Answer found(const NVX509::RefDirectoryKeyStore& store) {
    const auto pair = store->findSigningKey(address("alice@x.example"));
    const faults::Pause pause;
    if (pair && !pair->certificate.isNull() && pair->certificate == certificateOf(alice())) {
        return EVP_PKEY_eq(pair->key, alice().key.get()) == 1 ? Answer{Answer::done}
                                                              : Answer{Answer::wrong, "another key"};
    }
    // A file that cannot be read counts as absent: that has to be told.
    const auto problems = store->contents()->problems;
    return problems.empty() ? Answer{Answer::wrong, "the closer one is not found, and nobody is told"}
                            : Answer{Answer::refused, problems.front().file + " " + problems.front().reason};
}

} // namespace

Operation importsPkcs12(const std::string& password, bool bad) {
    const auto der = norvtest::pkcs12({.key = &alice(), .certificate = &alice(), .chain = {&identities().authority}});
    return {.name = std::string("PKCS12::Store ") + (bad ? "under another password" : "good"),
            .act =
                [=] {
                    Crypto::MemoryBIO source(x509testing::buffer(der));
                    Crypto::PKCS12::Store store(source);
                    store.read(password);
                    const faults::Pause pause;
                    const auto certificate = norvtest::owned(store);
                    if (store.privateKey().isNull() || certificate.isNull()) {
                        return Answer{Answer::refused, "one of them is missing"};
                    }
                    return EVP_PKEY_eq(store.privateKey(), alice().key.get()) == 1 &&
                                   certificate == certificateOf(alice())
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another key or certificate"};
                },
            .mustRefuse = bad,
            .mayRefuse = true};
}

Operation loadsStore(DirectoryKeyStore::Reading reading) {
    const auto folder = std::make_shared<Identities>();
    return {.name = std::string("DirectoryKeyStore ") +
                    (reading == DirectoryKeyStore::Reading::ahead ? "ahead" : "when asked"),
            .act =
                [=] {
                    const NVX509::RefDirectoryKeyStore store(folder->path(), reading);
                    return found(store);
                },
            .mayRefuse = true,
            .weight = 4};
}

Operation reloadsStore() {
    const auto folder = std::make_shared<Identities>();
    const auto store =
        std::make_shared<NVX509::RefDirectoryKeyStore>(folder->path(), DirectoryKeyStore::Reading::ahead);
    const auto turn = std::make_shared<int>(0);
    return {.name = "DirectoryKeyStore::reload",
            .act =
                [=] {
                    const std::string newer = "n" + std::to_string(++*turn) + "@x.example";
                    {
                        const faults::Pause pause;
                        folder->write("anybody/owners.txt", newer + "\n*\n", 0644);
                    }
                    try {
                        (*store)->reload();
                    } catch (...) {
                        const faults::Pause pause; // what was loaded before stays in use
                        if (found(*store).verdict != Answer::done) {
                            return Answer{Answer::wrong, "the old content is gone"};
                        }
                        throw;
                    }
                    const auto pair = (*store)->findSigningKey(address(newer));
                    const faults::Pause pause;
                    if (pair == nullptr || pair->certificate.isNull() || !(pair->certificate == certificateOf(bob()))) {
                        return Answer{Answer::refused, "the newer one is not found"};
                    }
                    return found(*store);
                },
            .mayRefuse = true,
            .weight = 2};
}

} // namespace faultsofstores
