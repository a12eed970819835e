#pragma once

// Operations on stores, chains, whole messages and connections, of which each call may fail.

#include "faults/FaultsTesting.h"

#include "support/Cms.h"

#include <authority/Path.h>
#include <norvcrypto-keystore/DirectoryKeyStore.h>

namespace faultsofstores {

using namespace faultstesting;
using cmstest::certificateOf;
using cmstest::identities;
using cmstest::keyOf;
using cmstest::pairOf;
using norvauthority::GeneralName;
using norvauthority::Identity;
namespace Crypto = Norvane::Crypto;
namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;
using NVX509::DirectoryKeyStore;

inline const Identity& alice() {
    return identities().rsa;
}
inline const Identity& bob() {
    return identities().otherRsa;
}

/// What people and authorities there are where trust is asked for.
struct Chain {
    Identity root = norvauthority::issue(
        {.subject = {{"CN", "Root"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06});
    Identity stranger = norvauthority::issue(
        {.subject = {{"CN", "Stranger"}}, .key = norvauthority::Key::ec(), .ca = true, .keyUsage = 0x06});
    Identity middle = issued(root, "Middle", "b2", {.ca = true, .keyUsage = 0x06});
    Identity anna = person(middle, "a1");
    Identity revoked = person(middle, "a2");
    Identity expired = person(middle, "a3", -86400);
    Identity limited = person(issued(root, "Limited", "b3", {.ca = false, .keyUsage = 0x80}), "a4");
    Identity constrained = issued(middle, "Anna", "a5",
                                  {.keyUsage = 0x80,
                                   .extendedKeyUsage = {"emailProtection"},
                                   .alternativeNames = {GeneralName::email("anna@example.org")},
                                   .extensions = {norvauthority::policyConstraints(9, std::nullopt)}});
    norvauthority::Crl rootList = norvauthority::issueList({.issuer = &root, .crlNumber = "1"});
    norvauthority::Time listed = norvauthority::Time::fromNow(-3600);
    norvauthority::Crl middleList = norvauthority::issueList(
        {.issuer = &middle, .revoked = {{.serial = "a2"}}, .thisUpdate = listed, .crlNumber = "2"});
    /// Of the same second, with a lower number: taken for the valid one it would turn every answer round.
    norvauthority::Crl replacedList = norvauthority::issueList(
        {.issuer = &middle, .revoked = {{.serial = "a1"}, {.serial = "a5"}}, .thisUpdate = listed, .crlNumber = "1"});

    static Identity issued(const Identity& issuer, const std::string& name, const std::string& serial,
                           norvauthority::CertificateRequest request) {
        request.subject = {{"CN", name}};
        request.key = norvauthority::Key::ec();
        request.issuer = &issuer;
        request.serial = serial;
        return norvauthority::issue(request);
    }
    static Identity person(const Identity& issuer, const std::string& serial, long until = 86400) {
        return issued(issuer, "Anna", serial,
                      {.notBefore = norvauthority::Time::fromNow(-2 * 86400),
                       .notAfter = norvauthority::Time::fromNow(until),
                       .keyUsage = 0x80,
                       .extendedKeyUsage = {"emailProtection"},
                       .alternativeNames = {GeneralName::email("anna@example.org")}});
    }
};
const Chain& chain();

// PKCS#12 and key stores.
Operation importsPkcs12(const std::string& password, bool bad);
Operation loadsStore(DirectoryKeyStore::Reading reading);
Operation reloadsStore();

// Trust. What is `bad` must be refused.
Operation judges(const std::string& name, const Identity& who, const Identity& anchor, bool bad);
Operation loadsMaterial();

// Whole messages. A mail is one of anna to bob.
std::string signedMail();
std::string signedAndEncrypted();
Operation readsMail(const std::string& name, const std::string& mail, const Identity& anchor, bool bad);
std::vector<Operation> writesMails();

// TLS.
Operation connects(const std::string& name, const Identity& trusted, int version, bool bad);
Operation accepts();

} // namespace faultsofstores
