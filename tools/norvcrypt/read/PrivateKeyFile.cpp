#include "read/PrivateKeyFile.h"
#include "base/Failure.h"
#include "openssl/Start.h"
#include "recognise/DerAndPem.h"
#include "recognise/WhatElse.h"

#include <norvcrypto-keystore/KeyFiles.h>
#include <norvcrypto/EncodedKind.h>

#include <algorithm>
#include <sys/stat.h>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
using Norvane::Crypto::Key;
using Norvane::Crypto::RefKey;

namespace {

RefKey decryptedKey(const Norvane::Buffer& content, const Passphrase& passphrase, const std::string& name) {
    needAllAlgorithms();
    const NVX509::OpenedKey opened = NVX509::openPrivateKey(content, passphrase.view());
    if (!opened.key.isNull())
        return opened.key;
    if (opened.tooCostly || opened.unsupported)
        throw Failure("cannot read the private key in " + name + ": " + inPlainWords(opened.reason));
    throw Refusal("the passphrase for the private key in " + name + " is wrong, or the file is damaged" +
                  passphrase.oddity() + (tellsAll() ? ": " + opened.reason : ""));
}

/// What is to be decrypted of a file: the key as it was found in it, however it is wrapped there. How a key of OpenSSL's older
/// form is encrypted stands in the text around it.
const Norvane::Buffer& encryptedPart(const FoundObject& object, const Norvane::Buffer& content) {
    const bool tellsItself =
        Norvane::Crypto::encodedKind(object.der) == Norvane::Crypto::EncodedKind::encryptedPrivateKey;
    return tellsItself ? object.der : content;
}

/// A key in clear is protected by the mode of its file alone.
void warnOfReaders(const std::string& path) {
    struct stat status {};
    if (path != "-" && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        reportError("warning: others can read the private key in " + path + ": chmod go= " + path);
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
                      (objects.front().problem.empty() ? whatElseIsIn(content) : ": " + objects.front().problem));
    if (object->kind == ObjectKind::privateKey)
        warnOfReaders(path);
    if (object->kind == ObjectKind::encryptedKey && !passphrase.given())
        throw Failure("the private key in " + name + " is encrypted: give its passphrase with --passphrase-file");
    if (object->kind == ObjectKind::encryptedKey)
        return decryptedKey(encryptedPart(*object, content), passphrase, name);
    try {
        RefKey key(Key::PRIVATE_KEY);
        key->read(object->der, false);
        return key;
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot read the private key in " + name, failure);
    }
}

} // namespace norvcrypt
