#include "identities/Store.h"
#include "base/Failure.h"

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

constexpr std::size_t longestShown = 300; // an address has 254 bytes at most

void noteFiles(const std::string& directory, const Store::Contents& contents, Inputs& inputs) {
    for (const Store::Identity& identity : contents.identities)
        for (const char* name : {"cert.pem", "chain.pem", "key.pem", "passphrase", "owners.txt"})
            inputs.note(directory + "/" + identity.folder + "/" + name);
}

} // namespace

NVX509::RefDirectoryKeyStore openStore(const std::string& directory, Inputs* inputs) {
    try {
        NVX509::RefDirectoryKeyStore store(directory);
        if (inputs != nullptr)
            noteFiles(directory, *store->contents(), *inputs);
        return store;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot load the store " + directory, failure);
    }
}

std::list<NVX509::RefCertificate> certificatesOfStore(const std::string& directory, Inputs& inputs) {
    const auto contents = openStore(directory, &inputs)->contents();
    std::list<NVX509::RefCertificate> certificates;
    for (const Store::Identity& identity : contents->identities)
        certificates.push_back(identity.certificate);
    for (const Store::Identity& identity : contents->identities)
        certificates.insert(certificates.end(), identity.chain.begin(), identity.chain.end());
    return certificates;
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

Store::Identity identityFor(const NVX509::RefDirectoryKeyStore& store, const std::string& directory,
                            const std::string& address, Store::Purpose purpose) {
    const auto found = store->explain(mailAddress(address), purpose);
    const std::string tellsMore = " (norvcrypt bindings find tells more)";
    const std::string wanted = std::string(purposeName(purpose)) + " for " + address;
    if (!found.winner) {
        const std::size_t skipped = found.contents->problems.size();
        throw Failure(
            "the store " + directory + " has nothing for " + wanted +
            (skipped == 0 ? "" : ", and " + std::to_string(skipped) + " of its files or folders are skipped") +
            tellsMore);
    }
    const Store::Match& match = found.matches[*found.winner];
    const Store::Identity& identity = found.contents->identities[match.place.identity];
    if (match.fitness != Store::Fitness::fit)
        throw Failure("the certificate of " + identity.folder + " in " + directory + ", found for " + wanted +
                      ", is expired or not yet valid" + tellsMore);
    return identity;
}

NVX509::KeyCertificatePair signerFor(const std::string& directory, const std::string& address, Inputs& inputs) {
    const NVX509::RefDirectoryKeyStore store = openStore(directory, &inputs);
    static_cast<void>(identityFor(store, directory, address, Store::Purpose::signing));
    return store->findSigningKey(mailAddress(address));
}

} // namespace norvcrypt
