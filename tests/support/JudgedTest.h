#pragma once

/// \file
/// What tests against other programs share: files of identities, and the keyrings of gpgsm and NSS.

#include "support/Process.h"
#include "support/Workspace.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace interop {

class JudgedTest : public testing::Test {
protected:
    void SetUp() override { work.write("root.pem", root().certificate.pem()); }
    void TearDown() override {
        if (work.exists("gnupg"))
            in({"gpgconf", "--kill", "all"});
    }

    void put(const std::string& name, const norvauthority::Identity& identity) {
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    Answer in(std::vector<std::string> arguments, const std::string& input = "") {
        return run({.arguments = std::move(arguments),
                    .input = input,
                    .directory = work.directory(),
                    .environment = {{"GNUPGHOME", work.path("gnupg")}, {"LC_ALL", "C"}}});
    }
    void succeeds(const std::vector<std::string>& arguments, const std::string& input = "") {
        const Answer answer = in(arguments, input);
        ASSERT_EQ(0, answer.status) << arguments[0] << ": " << answer.out << answer.err;
    }

    static bool hasGpgsm() { return installed("gpgsm") && installed("gpgconf"); }
    /// A keyring that trusts the root.
    void makeGpgsmHome() {
        const std::string home = work.path("gnupg");
        std::filesystem::create_directory(home);
        std::filesystem::permissions(home, std::filesystem::perms::owner_all);
        const Answer fingerprint = in({"openssl", "x509", "-in", "root.pem", "-noout", "-fingerprint", "-sha1"});
        work.write("gnupg/trustlist.txt", fingerprint.out.substr(fingerprint.out.find('=') + 1, 59) + " S relax\n");
        work.write("gnupg/gpgsm.conf", std::string("disable-crl-checks\ndisable-dirmngr\n"));
        work.write("gnupg/gpg-agent.conf", std::string("allow-loopback-pinentry\n"));
        succeeds({"gpgsm", "--batch", "--import", "root.pem"});
    }
    /// gpgsm with a passphrase to use.
    Answer gpgsmWith(const std::string& passphrase, const std::vector<std::string>& more) {
        std::vector<std::string> arguments{"gpgsm",    "--batch",         "--yes", "--pinentry-mode",
                                           "loopback", "--passphrase-fd", "0"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return in(arguments, passphrase + "\n");
    }
    /// Tries again with another salt what is derived from one: with gpgsm 2.2 about one PKCS#12 file in a hundred does not
    /// open, in both directions and without our code on either side.
    void succeedsWithSomeSalt(const std::function<Answer()>& act) {
        Answer answer = act();
        for (int more = 3; answer.status != 0 && more > 0; --more)
            answer = act();
        ASSERT_EQ(0, answer.status) << answer.out << answer.err;
    }
    /// Imports a person's key, under the passphrase "x".
    void importIntoGpgsm(const std::string& who) {
        succeedsWithSomeSalt([&] {
            succeeds({"openssl", "pkcs12", "-export", "-in", who + ".pem", "-inkey", who + ".key", "-certfile",
                      "root.pem", "-out", who + ".p12", "-passout", "pass:x", "-keypbe", "PBE-SHA1-3DES", "-certpbe",
                      "PBE-SHA1-3DES", "-macalg", "sha1"});
            return gpgsmWith("x", {"--import", who + ".p12"});
        });
    }

    static bool hasNss() { return installed("cmsutil") && installed("certutil") && installed("pk12util"); }
    /// A database in the folder "nss" that trusts the root.
    void makeNssDatabase() {
        std::filesystem::create_directory(work.path("nss"));
        succeeds({"certutil", "-N", "-d", "nss", "--empty-password"});
        succeeds({"certutil", "-A", "-d", "nss", "-n", "root", "-t", "C,C,C", "-i", "root.pem"});
    }
    void importIntoNss(const std::string& who) {
        succeeds({"openssl", "pkcs12", "-export", "-in", who + ".pem", "-inkey", who + ".key", "-name", who, "-out",
                  who + ".p12", "-passout", "pass:x"});
        succeeds({"pk12util", "-i", who + ".p12", "-d", "nss", "-W", "x"});
    }

    Workspace work;
};

} // namespace interop
