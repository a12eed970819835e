#pragma once

#include "base/Failure.h"
#include "files/Input.h"
#include "files/Output.h"
#include "show/ShellQuoting.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <authority/Authority.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace norvcrypt {

struct DemoOptions {
    std::optional<std::string> in;
    std::string directory = "norvcrypt-demo";
    bool force = false; ///< replace files that are there already
};

/// The demonstration: each step says what it does, does it, and prints how to check it without this program.
class Demo {
public:
    explicit Demo(const DemoOptions& options) : m_options(options) {}
    Exit run();

private:
    using Identity = norvauthority::Identity;

    [[nodiscard]] std::string path(const std::string& name) const { return m_options.directory + "/" + name; }
    [[nodiscard]] std::string argument(const std::string& name) const { return quoted(path(name)); }
    void tell(const std::string& text);
    /// Shows a command to be run as it stands: its paths are `argument`s, in which nothing is left to be escaped.
    void command(const std::string& line);
    void verdict(const std::string& what, bool asExpected);

    static Norvane::Crypto::NVX509::RefCertificate certificateOf(const Identity& identity);
    static Norvane::Crypto::RefKey keyOf(const Identity& identity);

    void makeDirectory();
    /// Writes a file below the folder.
    void put(const std::string& name, std::string_view content,
             OutputFile::Access access = OutputFile::Access::everyone) {
        writeFile(path(name), m_inputs, content, access, existing());
    }
    norvauthority::Key makeKey();
    Identity makeIdentity(const std::string& name, norvauthority::CertificateRequest request);
    void makeIdentities();
    void makeMessage();
    void sign();
    [[nodiscard]] bool verifies(const std::string& body, const Identity& identity) const;
    void verify();
    void refuseChangedByte();
    void refuseStranger();
    void encrypt();
    /// SHA-256 of what the key decrypts; empty when it does not. Tells what became of each recipient.
    std::string digestDecryptedBy(const std::string& name, const Identity& identity);
    void decrypt();
    void refuseOutsider();
    void makePkcs12Files();
    void makeStore();
    void makeLetter();
    void makeServer();
    void keepIdentities();
    [[nodiscard]] OutputFile::Existing existing() const {
        return m_options.force ? OutputFile::Existing::replaced : OutputFile::Existing::refused;
    }

    DemoOptions m_options;
    TextOutput m_out;
    Inputs m_inputs;
    Identity m_root;
    Identity m_authority;
    Identity m_alice;
    Identity m_bob;
    Identity m_carol;
    Identity m_mallory;
    std::string m_list; ///< the authority's revocation list, PEM
    std::uint64_t m_size = 0;
    std::string m_digest; ///< of the message, SHA-256
    bool m_asExpected = true;
};

} // namespace norvcrypt
