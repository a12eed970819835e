#pragma once

/// \file
/// What of secrets is left in a process after everything that held them was released. The work is done by the test program, run
/// anew, so that it knows nothing but the files that it is given; it stops itself, and its memory and its core dump are
/// searched from outside. docs/threat-model.md names what is not wiped.

#include "support/Keys.h"

#include <norvcmsg/EmailAddress.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/KeyStore.h>

#include <gtest/gtest.h>

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace secrettesting {

using namespace Norvane::Crypto;
using norvauthority::Bytes;
using norvauthority::Identity;

// The process that is searched. It must not have a secret of its own: what it works on, it reads through the library.

using Work = void (*)(const std::string& folder);

/// Adds a piece of work as the program begins.
struct AddedWork {
    AddedWork(const char* name, Work work);
};

inline Norvane::EmailAddress owner() {
    return Norvane::EmailAddress::rfc5321Parse("alice@example.org", true);
}
/// The store of the one identity.
NVX509::RefKeyStore keysIn(const std::string& folder);

// The process that searches.

/// What is looked for, by its name.
using Secrets = std::map<std::string, std::string>;
/// The names of those that are there.
using Found = std::vector<std::string>;

class SecretsInMemory : public testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();

    /// The names of the secrets that are in a process after some work, beyond those that OpenSSL leaves of a key that it
    /// reads by itself.
    /// \param learn adds secrets that are known once the work is done
    static Found leftByUs(const std::string& work, const std::function<void(Secrets&)>& learn = {});
    /// The names of the secrets that are in a process after some work.
    static Found leftBy(const std::string& work, const std::function<void(Secrets&)>& learn = {});
    static Found leftInCoreOf(const std::string& work);

    static std::string path(const std::string& name);
    static void write(const std::string& name, const std::string& content);
    static std::string read(const std::string& name);
    static const Secrets& secrets();
    /// Long enough for pieces of every size, with the secret again and again.
    static std::string text();
    /// What RSA makes of the encrypted key of the one recipient.
    static std::string contentKey(const std::string& message);
};

} // namespace secrettesting
