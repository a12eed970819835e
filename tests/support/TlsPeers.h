#pragma once

/// \file
/// Peers of TLS connections, each with something to be said about it, and the files that judge them.

#include "support/Running.h"
#include "support/ToolTest.h"

#include <authority/Authority.h>

#include <filesystem>
#include <string>
#include <vector>

namespace interop {

/// A certificate that the judge finds good or bad, and the verify result that tells.
struct Peer {
    const char* name;
    const char* result; ///< as OpenSSL numbers and names it
};

inline constexpr Peer good{"good", "verify result 0: ok"};
inline constexpr Peer revoked{"revoked", "verify result 23: certificate revoked"};
inline constexpr Peer expired{"expired", "verify result 10: certificate has expired"};
inline constexpr Peer selfSigned{"selfSigned", "verify result 18: self-signed certificate"};
inline constexpr Peer unknown{"unknown", "verify result 20: unable to get local issuer certificate"};
inline constexpr Peer withoutList{"withoutList", "verify result 0: ok"}; ///< its issuer has no list on file

/// Issued once in a process; EC keys.
inline const norvauthority::Identity& authorityOf(const std::string& name) {
    using norvauthority::Identity;
    using norvauthority::Key;
    static const auto make = [](const std::string& of) {
        return norvauthority::issue({.subject = {{"O", "TLS Test"}, {"CN", of}},
                                     .key = Key::ec(),
                                     .serial = "1",
                                     .ca = true,
                                     .keyUsage = 0x06});
    };
    static const Identity root = make("Root");
    static const Identity second = make("Root without a list");
    static const Identity stranger = make("Stranger");
    return name == "unknown" ? stranger : name == "withoutList" ? second : root;
}

/// A folder with NAME.pem and NAME.key for each peer, the trusted certificates in ca.pem and the lists, filed, in crl.
class TlsTest : public ToolTest {
protected:
    void SetUp() override {
        if (!installed("openssl"))
            GTEST_SKIP() << "openssl is not installed";
        int serial = 10; // the second is on the list
        for (const Peer& peer : {good, revoked, expired, selfSigned, unknown, withoutList})
            write(peer.name, std::to_string(serial++));
        work.write("ca.pem", authorityOf("good").certificate.pem() + authorityOf("withoutList").certificate.pem());
        fileLists();
        before = work.names();
    }

    /// Runs a program to its end, within the deadline.
    Answer timed(std::vector<std::string> arguments, const std::string& input = "") {
        arguments.insert(arguments.begin(), {"timeout", std::to_string(deadlineSeconds)});
        return run(Command{.arguments = std::move(arguments), .input = input, .directory = work.directory()});
    }
    Answer connect(const std::string& port, const std::vector<std::string>& more, const std::string& input = "") {
        std::vector<std::string> arguments{norvtest::norvcryptProgram, "tls", "connect", "localhost:" + port};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return timed(arguments, input);
    }
    /// The arguments of a server with the good certificate, on a port that the kernel chooses.
    static std::vector<std::string> server(const std::vector<std::string>& more) {
        std::vector<std::string> arguments{norvtest::norvcryptProgram,
                                           "tls",
                                           "serve",
                                           "127.0.0.1:0",
                                           "--cert",
                                           "good.pem",
                                           "--key",
                                           "good.key",
                                           "--ca",
                                           "ca.pem",
                                           "--crl",
                                           "crl"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    static std::string portOf(Running& server) { return server.waitFor("listening on 127\\.0\\.0\\.1:(\\d+)"); }

private:
    void write(const std::string& name, const std::string& serial) const {
        using namespace norvauthority;
        const bool isOld = name == "expired";
        const Identity identity = issue({.subject = {{"O", "TLS Test"}, {"CN", name}},
                                         .key = Key::ec(),
                                         .issuer = name == "selfSigned" ? nullptr : &authorityOf(name),
                                         .serial = serial,
                                         .notBefore = Time::fromNow(-172800),
                                         .notAfter = Time::fromNow(isOld ? -86400 : 86400),
                                         .keyUsage = 0x80,
                                         .alternativeNames = {GeneralName::dns("localhost")}});
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    void fileLists() const {
        using namespace norvauthority;
        std::filesystem::create_directory(work.path("crl"));
        work.write("crl/root.crl", issueList({.issuer = &authorityOf("good"), .revoked = {{.serial = "11"}}}).pem());
        ASSERT_EQ(0, run(Command{.arguments = {"openssl", "rehash", work.path("crl")}}).status);
    }
};

} // namespace interop
