#include "read/Pkcs12File.h"
#include "base/Failure.h"
#include "openssl/Start.h"
#include "recognise/DerAndPem.h"
#include "recognise/WhatElse.h"

#include <norvcrypto/BIO.h>
#include <norvcrypto/PKCS12.h>

#include <algorithm>
#include <variant>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

/// A password that was compared and differs leaves no reason; a file that cannot be checked at all does.
bool isWrongPassword(const Norvane::Exception& failure) {
    if (failure.where() != "Crypto::PKCS12::read - Incorrect password" || failure.parameters().empty())
        return false;
    const auto* reason = std::get_if<std::string>(&failure.parameters().front());
    return reason != nullptr && reason->empty();
}

/// The PKCS#12 structure in a file, however it is wrapped; what looks binary and is none has the library tell what is wrong
/// with it. \throws Failure: there is none, or more than one
Norvane::Buffer structureIn(const Norvane::Buffer& file, const std::string& name) {
    const std::vector<FoundObject> found = objectsIn(file);
    const auto isPkcs12 = [](const FoundObject& one) { return one.kind == ObjectKind::pkcs12; };
    const auto first = std::ranges::find_if(found, isPkcs12);
    if (first == found.end() && (found.front().kind != ObjectKind::unknown || !looksLikeDer(file)))
        throw Failure("no PKCS#12 structure in " + name + whatElseIsIn(file));
    if (std::ranges::count_if(found, isPkcs12) > 1)
        throw Failure("more than one PKCS#12 structure in " + name);
    return first == found.end() ? file : first->der;
}

void readUnder(const std::string& passphrase, Norvane::Crypto::PKCS12::Store& store) {
    try {
        store.read(passphrase);
    } catch (const Norvane::Exception& failure) {
        if (!passphrase.empty() || !isWrongPassword(failure))
            throw;
        store.readWithoutPassword(); // programs differ in what they make where nothing is typed
    }
}

} // namespace

std::optional<Pkcs12Content> readPkcs12(Inputs& inputs, const std::string& path, const Passphrase& passphrase) {
    needAllAlgorithms();
    Norvane::Crypto::MemoryBIO source(structureIn(inputs.readAll(path, true), inputName(path)));
    try {
        Norvane::Crypto::PKCS12::Store store(source);
        readUnder(passphrase.text(), store);
        Pkcs12Content content{store.privateKey(), {}};
        // The store's own certificate is nobody's.
        if (!store.certificate().isNull())
            content.certificate = NVX509::CertificateFactory()(store.certificate(), true);
        return content;
    } catch (const Norvane::Exception& failure) {
        if (isWrongPassword(failure))
            return std::nullopt;
        throw Failure("cannot read the PKCS#12 file " + inputName(path), failure);
    }
}

} // namespace norvcrypt
