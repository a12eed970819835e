#pragma once

/// \file
/// Certificates, keys and passphrases from files, as signing and verifying need them.

#include "files/Input.h"
#include "files/Output.h"

#include <norvcrypto/Certificate.h>
#include <norvcrypto/Key.h>

#include <list>
#include <string>

namespace norvcrypt {

/// A passphrase, wiped with the object.
class Passphrase {
public:
    Passphrase() = default;
    /// The first line of a file, without its end. \throws Failure
    Passphrase(Inputs& inputs, const std::string& path);
    ~Passphrase();
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;

    [[nodiscard]] bool given() const noexcept { return m_given; }
    [[nodiscard]] const std::string& text() const noexcept { return m_text; }

private:
    std::string m_text;
    bool m_given = false;
};

/// The certificates in a file, in order; at least one. \throws Failure
std::list<Norvane::Crypto::NVX509::RefCertificate> readCertificates(Inputs& inputs, const std::string& path);

/// The private key in a file: DER or PEM, encrypted or not. Never prompts. \throws Failure
Norvane::Crypto::RefKey readPrivateKey(Inputs& inputs, const std::string& path, const Passphrase& passphrase);

/// Writes PKCS#8 in PEM: encrypted with AES when there is a passphrase, else in clear. \throws Failure
void writePrivateKey(const Norvane::Crypto::RefKey& key, const Passphrase& passphrase, OutputFile& out);

} // namespace norvcrypt
