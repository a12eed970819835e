#pragma once

// A store to write, and short ways to ask one.

#include "support/X509Testing.h"

#include <norvcrypto-keystore/DirectoryKeyStore.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace keystoretesting {

using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using Norvane::EmailAddress;
using norvauthority::CertificateRequest;
using Reading = DirectoryKeyStore::Reading;

/// The key that all identities share: RSA, since to other keys nothing can be encrypted.
inline const norvauthority::Key& sharedKey() {
    static const auto key = norvauthority::Key::fromPem(norvtest::storedKeyPem("alice"));
    return key;
}

/// An identity named `name`, of the key that all share unless the request has one.
inline norvauthority::Identity identity(const std::string& name, CertificateRequest request = {}) {
    static unsigned int serials = 0x1000;
    request.subject = {{"CN", name}};
    if (!request.key) {
        request.key = sharedKey();
    }
    if (request.serial == "1") {
        request.serial = std::to_string(++serials);
    }
    return norvauthority::issue(request);
}

/// A directory that goes with the test.
class Store {
public:
    Store() { folder("."); }

    [[nodiscard]] std::string path(const std::string& name = "") const { return m_folder.path("store/" + name); }
    /// Makes a folder, or gives it another mode.
    void folder(const std::string& name, unsigned int mode = 0755) const {
        std::filesystem::create_directories(path(name));
        chmod(path(name).c_str(), mode);
    }
    void file(const std::string& name, const std::string& content, unsigned int mode = 0600) const {
        std::ofstream(path(name), std::ios::binary) << content;
        chmod(path(name).c_str(), mode);
    }
    void remove(const std::string& name) const { std::filesystem::remove_all(path(name)); }
    /// A folder with certificate, key and owners.
    void add(const std::string& name, const std::string& owners, const norvauthority::Identity& who,
             bool withKey = true) const {
        folder(name);
        file(name + "/cert.pem", who.certificate.pem(), 0644);
        file(name + "/owners.txt", owners, 0644);
        if (withKey) {
            file(name + "/key.pem", who.key.pkcs8Pem());
        }
    }
    void add(const std::string& name, const std::string& owners) const { add(name, owners, identity(name)); }

private:
    x509testing::TemporaryFolder m_folder;
};

inline EmailAddress address(const std::string& text) {
    return EmailAddress::rfc5321Parse(text, true);
}

/// The common name of a certificate; "nobody" for none.
inline std::string who(const RefCertificate& certificate) {
    return certificate.isNull() ? "nobody" : certificate->subject().listRDN().front().value;
}
inline std::string who(const KeyCertificatePair& pair) {
    return who(pair->certificate);
}
inline std::string signerFor(const RefDirectoryKeyStore& store, const std::string& sender) {
    return who(store->findSigningKey(address(sender)));
}
inline std::string recipientFor(const RefDirectoryKeyStore& store, const std::string& recipient) {
    return who(store->findEncryptionCertificate(address(recipient)));
}

/// "folder/file: reason", one for each problem.
inline std::vector<std::string> problemsOf(const RefDirectoryKeyStore& store) {
    std::vector<std::string> lines;
    for (const auto& problem : store->contents()->problems) {
        lines.push_back(problem.folder + (problem.file.empty() ? "" : "/" + problem.file) + ": " + problem.reason);
    }
    return lines;
}

/// The folders that serve.
inline std::vector<std::string> foldersOf(const RefDirectoryKeyStore& store) {
    std::vector<std::string> folders;
    for (const auto& one : store->contents()->identities) {
        folders.push_back(one.folder);
    }
    return folders;
}

/// "folder: pattern: fitness", one for each match; the winner's line ends in " *".
inline std::vector<std::string> explained(const RefDirectoryKeyStore& store, const std::string& owner,
                                          DirectoryKeyStore::Purpose purpose) {
    const char* const fitness[] = {"fit", "out of validity", "usage", "no key", "kind of key"};
    const auto explanation = store->explain(address(owner), purpose);
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < explanation.matches.size(); ++i) {
        const auto& match = explanation.matches[i];
        const auto& one = explanation.contents->identities[match.place.identity];
        lines.push_back(one.folder + ": " + one.owners[match.place.owner].pattern.text() + ": " +
                        fitness[static_cast<int>(match.fitness)] + (explanation.winner == i ? " *" : ""));
    }
    return lines;
}

/// Signs with a pair, as a mail layer does.
inline void sign(const KeyCertificatePair& pair) {
    Norvane::MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(signature);
    signer.write(x509testing::buffer(std::string("body")));
    signer.end();
    EXPECT_FALSE(signature.content().empty());
}

class DirectoryKeyStoreTest : public x509testing::QuietQueue {
protected:
    Store m_store;

    [[nodiscard]] RefDirectoryKeyStore open(Reading reading = Reading::whenAsked) const {
        return RefDirectoryKeyStore(m_store.path(), reading);
    }
};

} // namespace keystoretesting
