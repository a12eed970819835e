#include "identities/OwnIdentity.h"
#include "base/Failure.h"
#include "read/CertificateFile.h"
#include "read/Pkcs12File.h"
#include "read/PrivateKeyFile.h"
#include "recognise/DerAndPem.h"

#include <algorithm>
#include <utility>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::CMS::CertificateIdentifier;
using Norvane::Crypto::CMS::NamedBy;

namespace {

OwnIdentity fromPkcs12(const std::string& path, const Passphrase& passphrase, Inputs& inputs) {
    const auto content = readPkcs12(inputs, path, passphrase);
    if (!content)
        throw Refusal("wrong passphrase for " + inputName(path) + passphrase.oddity());
    if (content->key.isNull() || content->certificate.isNull())
        throw Failure("no private key with its certificate in " + inputName(path));
    return {content->certificate, content->key, inputName(path)};
}

/// False for a file that cannot be read, too: what was wrong with the other one is told then.
bool holds(Inputs& inputs, const std::string& path, ObjectKind kind) {
    try {
        const std::vector<FoundObject> objects = objectsIn(inputs.readAll(path, true));
        return std::ranges::any_of(objects, [kind](const FoundObject& one) { return one.kind == kind; });
    } catch (const Failure&) {
        return false;
    }
}

/// Those of --cert. Whoever mixed the two options up is told so.
std::list<NVX509::RefCertificate> certificatesOf(const IdentityFiles& files, Inputs& inputs) {
    try {
        return readCertificates(inputs, *files.certificate);
    } catch (const Failure&) {
        const bool canBeReadAgain = *files.certificate != "-" && *files.key != "-";
        if (canBeReadAgain && holds(inputs, *files.key, ObjectKind::certificate) &&
            (holds(inputs, *files.certificate, ObjectKind::privateKey) ||
             holds(inputs, *files.certificate, ObjectKind::encryptedKey)))
            throw Failure("--cert and --key are swapped: " + *files.certificate + " holds the private key, and " +
                          *files.key + " the certificate");
        throw;
    }
}

OwnIdentity readIdentity(const IdentityFiles& files, Inputs& inputs) {
    const Passphrase passphrase(inputs, files.passphrase);
    if (files.pkcs12)
        return fromPkcs12(*files.pkcs12, passphrase, inputs);
    std::list<NVX509::RefCertificate> chain = certificatesOf(files, inputs);
    const NVX509::RefCertificate certificate = chain.front();
    chain.pop_front();
    return {certificate, readPrivateKey(inputs, *files.key, passphrase), inputName(*files.key), std::move(chain)};
}

} // namespace

std::vector<OwnIdentity> readIdentities(const std::vector<IdentityFiles>& files, Inputs& inputs) {
    std::vector<OwnIdentity> identities;
    identities.reserve(files.size());
    for (const IdentityFiles& one : files)
        identities.push_back(readIdentity(one, inputs));
    return identities;
}

StoreIdentities::StoreIdentities(const std::string& directory, Inputs& inputs)
    : m_directory(directory),
      m_store(openStore(directory, &inputs)) {}

std::optional<OwnIdentity> StoreIdentities::find(const CertificateIdentifier& name) const {
    const auto found = askStore(m_directory, [&]() -> std::optional<Store::Found> {
        if (name.namedBy() == NamedBy::subjectKeyIdentifier)
            return m_store->searchKeyIdentifier(name.octets());
        return name.serialNumber().isNull() ? std::nullopt : m_store->search(*name.issuer(), *name.serialNumber());
    });
    if (!found)
        return std::nullopt;
    return OwnIdentity{found->pair->certificate, found->pair->key, m_directory + "/" + found->folder + "/key.pem",
                       found->pair->chain};
}

} // namespace norvcrypt
