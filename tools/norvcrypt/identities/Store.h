#pragma once

/// \file
/// A store of identities in a directory, as the commands use it.

#include "base/Failure.h"
#include "files/Input.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>

#include <list>
#include <string>

namespace norvcrypt {

using Store = Norvane::Crypto::NVX509::DirectoryKeyStore;

/// Loads a store; its files count among the inputs, if there are any. \throws Failure: the directory cannot be read; folders that cannot are among its problems
Norvane::Crypto::NVX509::RefDirectoryKeyStore openStore(const std::string& directory, Inputs* inputs = nullptr);

/// All certificates of a store, whatever they are for: those of the identities first, then those that go with them.
/// \throws Failure as `openStore`
std::list<Norvane::Crypto::NVX509::RefCertificate> certificatesOfStore(const std::string& directory, Inputs& inputs);

/// A mail address, in the characters of RFC 6531 too; the empty text is the empty address. \throws Failure
Norvane::EmailAddress mailAddress(const std::string& text);

/// "signing", "encryption", "decryption".
const char* purposeName(Store::Purpose purpose);

/// Runs what asks a store. \throws Failure: the store cannot be read
template <class Question> auto askStore(const std::string& directory, Question question) {
    try {
        return question();
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot load the store " + directory, failure);
    }
}

/// The identity that serves an address at this moment. \throws Failure: there is none, or its certificate is not valid
Store::Found identityFor(const Norvane::Crypto::NVX509::RefDirectoryKeyStore& store, const std::string& directory,
                         const std::string& address, Store::Purpose purpose);

/// The pair of the identity that signs for an address. \throws Failure as `identityFor`
Norvane::Crypto::NVX509::KeyCertificatePair signerFor(const std::string& directory, const std::string& address,
                                                      Inputs& inputs);

} // namespace norvcrypt
