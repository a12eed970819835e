#include "read/PrivateKeyFile.h"
#include "base/Failure.h"
#include "openssl/Start.h"
#include "recognise/DerAndPem.h"

#include <norvcrypto-keystore/KeyFiles.h>

#include <algorithm>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;

namespace {

RefKey decryptedKey(const Norvane::Buffer& content, const Passphrase& passphrase, const std::string& name) {
    needAllAlgorithms();
    const NVX509::OpenedKey opened = NVX509::openPrivateKey(content, passphrase.view());
    if (opened.key.isNull())
        throw Failure("cannot read the private key in " + name +
                      (opened.tooCostly ? ": " : ", the passphrase may be wrong: ") + opened.reason);
    return opened.key;
}

} // namespace

RefKey readPrivateKey(Inputs& inputs, const std::string& path, const Passphrase& passphrase) {
    const Norvane::Buffer content = inputs.readAll(path, true);
    const std::string name = inputName(path);
    const std::vector<FoundObject> objects = objectsIn(content);
    const auto object = std::find_if(objects.begin(), objects.end(), [](const FoundObject& candidate) {
        return candidate.kind == ObjectKind::privateKey || candidate.kind == ObjectKind::encryptedKey;
    });
    if (object == objects.end())
        throw Failure("no private key in " + name +
                      (objects.front().problem.empty() ? "" : ": " + objects.front().problem));
    if (object->kind == ObjectKind::encryptedKey && !passphrase.given())
        throw Failure("the private key in " + name + " is encrypted: give its passphrase with --passphrase-file");
    if (object->kind == ObjectKind::encryptedKey)
        return decryptedKey(content, passphrase, name);
    try {
        RefKey key(Key::PRIVATE_KEY);
        key->read(object->der, false);
        return key;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot read the private key in " + name, failure);
    }
}

} // namespace norvcrypt
