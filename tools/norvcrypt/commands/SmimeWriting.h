#pragma once

/// \file
/// What norvcrypt smime sign, encrypt and sign-encrypt share: whole messages in and out.

#include "commandline/CommandLine.h"
#include "commands/IdentityOptions.h"
#include "many/ManyOptions.h"

#include <norvcrypto-smime/SMimeWriter.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// Which of the two a command does.
struct SmimeWork {
    bool signs = false;
    bool encrypts = false;
};

/// The options of such a command.
class SmimeWritingOptions {
public:
    SmimeWritingOptions(Command& command, SmimeWork work);

    /// The option that has to be given and was not; nothing when all are there.
    [[nodiscard]] std::optional<std::string> missing() const;
    /// Writes the message. \throws Failure
    [[nodiscard]] Exit run() const;

private:
    void addSigning(Command& command);
    void addEncrypting(Command& command);
    void addMessage(Command& command);

    [[nodiscard]] Norvane::Crypto::SMime::SignOptions signing(const Norvane::Crypto::NVX509::RefKeyStore& keys,
                                                              Inputs& inputs) const;
    [[nodiscard]] Norvane::Crypto::SMime::EncryptOptions encrypting(
        const Norvane::Crypto::NVX509::RefKeyStore& keys,
        const std::vector<Norvane::Crypto::CMS::SignedWriter::Signer>& signers, Inputs& inputs) const;
    [[nodiscard]] std::vector<Norvane::Crypto::SMime::Wrapping> shells(Inputs& inputs) const;
    [[nodiscard]] Norvane::Crypto::SMime::WriteOptions how() const;
    void write(const std::string& in, OutputFile& out, const std::vector<Norvane::Crypto::SMime::Wrapping>& shells,
               Inputs& inputs, Progress* progress) const;
    [[nodiscard]] Exit runMany() const;
    [[nodiscard]] bool signsWithFiles() const;

    SmimeWork m_work;
    std::optional<IdentityOptions> m_identities;
    std::optional<std::string> m_store;
    std::optional<std::string> m_from;
    std::optional<std::string> m_chain;
    std::optional<std::string> m_digest;
    bool m_pss = false;
    bool m_opaque = false;
    std::vector<std::string> m_certificates;
    std::vector<std::string> m_addresses;
    bool m_toSelf = false;
    std::string m_cipher = "aes-256-cbc";
    bool m_oaep = false;
    std::string m_oaepDigest = "sha256";
    bool m_protectHeader = false;
    std::string m_lineEnds = "same";
    std::unique_ptr<ManyOptions> m_in;
    std::string m_out = "-";
};

/// Gives a command these options, and the action that goes with them.
void addSmimeWriting(Command& command, Action& action, SmimeWork work);

/// Each adds a sub-command of `norvcrypt smime`.
void addSmimeSign(Command& smime, Action& action);
void addSmimeEncrypt(Command& smime, Action& action);
void addSmimeSignEncrypt(Command& smime, Action& action);

} // namespace norvcrypt
