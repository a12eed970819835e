#include "identities/Store.h"
#include "base/Failure.h"
#include "openssl/Start.h"

#include <norvcmsg/FileDescriptor.h>

#include <fcntl.h>
#include <functional>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

constexpr std::size_t longestShown = 300; // an address has 254 bytes at most

/// Every file that may be one of a store's.
void eachFile(const std::string& directory, const std::function<void(const std::string&)>& tell) {
    const Norvane::FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string& folder : Norvane::namesIn(opened).names)
        for (const char* name : {"cert.pem", "chain.pem", "key.pem", "passphrase", "owners.txt"})
            tell(std::string(directory).append("/").append(folder).append("/").append(name));
}

} // namespace

NVX509::RefDirectoryKeyStore openStore(const std::string& directory, Inputs* inputs) {
    needAllAlgorithms(); // its keys may be encrypted
    NVX509::RefDirectoryKeyStore store = askStore(directory, [&] { return NVX509::RefDirectoryKeyStore(directory); });
    if (inputs != nullptr)
        inputs->noteLater([directory](const auto& tell) { eachFile(directory, tell); });
    return store;
}

std::list<NVX509::RefCertificate> certificatesOfStore(const std::string& directory, Inputs& inputs) {
    const NVX509::RefDirectoryKeyStore store = openStore(directory, &inputs);
    return askStore(directory, [&] { return store->certificates(); });
}

Norvane::EmailAddress mailAddress(const std::string& text) {
    auto address = Norvane::EmailAddress::rfc5321Parse(text, true);
    if (address.isNull())
        throw Failure("no mail address: " + (text.size() > longestShown ? text.substr(0, longestShown) + "..." : text));
    return address;
}

const char* purposeName(Store::Purpose purpose) {
    switch (purpose) {
    case Store::Purpose::signing:
        return "signing";
    case Store::Purpose::encryption:
        return "encryption";
    case Store::Purpose::decryption:
        break;
    }
    return "decryption";
}

Store::Found identityFor(const NVX509::RefDirectoryKeyStore& store, const std::string& directory,
                         const std::string& address, Store::Purpose purpose) {
    const auto parsed = mailAddress(address);
    const auto found = askStore(directory, [&] { return store->search(parsed, purpose); });
    const std::string tellsMore = " (norvcrypt bindings find tells more)";
    const std::string wanted = std::string(purposeName(purpose)) + " for " + address;
    if (!found) {
        const std::size_t skipped =
            askStore(directory, [&] { return store->explain(parsed, purpose); }).contents->problems.size();
        throw Refusal(
            "the store " + directory + " has nothing for " + wanted +
            (skipped == 0 ? "" : ", and " + std::to_string(skipped) + " of its files or folders are skipped") +
            tellsMore);
    }
    if (!found->isValid)
        throw Refusal("the certificate of " + found->folder + " in " + directory + ", found for " + wanted +
                      ", is expired or not yet valid" + tellsMore);
    return *found;
}

NVX509::KeyCertificatePair signerFor(const std::string& directory, const std::string& address, Inputs& inputs) {
    const NVX509::RefDirectoryKeyStore store = openStore(directory, &inputs);
    return identityFor(store, directory, address, Store::Purpose::signing).pair;
}

} // namespace norvcrypt
