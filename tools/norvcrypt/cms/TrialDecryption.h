#pragma once

/// \file
/// Decrypting with several identities and secrets, and what became of each recipient.

#include "files/HeldBody.h"
#include "identities/OwnIdentity.h"
#include "read/StructureFile.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/CMSEnvelopeReader.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// A password or a key-encryption key, and its file as it is named in messages.
struct SharedSecret {
    Norvane::Buffer octets;
    std::string file;
};

/// What one recipient of the structure came to.
struct Attempt {
    enum class Outcome : int {
        decrypted,
        unnamed,     ///< its serial number is negative: no key can be asked for
        noKey,       ///< none of the identities is named, or the secret of its kind was not given
        foreignKey,  ///< the private key does not belong to the certificate
        unfitKey,    ///< the private key is of another kind than the recipient's
        failed,      ///< the message is damaged, or the secret is another one
        unsupported, ///< it needs `algorithm`
        tooCostly,   ///< to try it would cost too much, as `algorithm` tells
        notTried,    ///< the message has more recipients than a message may cost
    };
    using Kind = Norvane::Crypto::CMS::EnvelopeReader::Recipient::Kind;

    std::string recipient; ///< its name, to be escaped; empty when it has none
    Kind kind = Kind::other;
    Outcome outcome = Outcome::decrypted;
    std::optional<OwnIdentity> identity; ///< whose key was tried
    std::string secretFile;              ///< of the secret that was tried
    std::string algorithm;               ///< when it is unsupported
};

/// What one structure came to.
struct DecryptionResult {
    bool decrypted = false;
    bool contentMissing = false;   ///< the encrypted body is not in the structure
    std::vector<Attempt> attempts; ///< in the structure's order, up to the one that decrypted it

    /// Not decrypted, and might have been if all that the message has were supported and allowed.
    [[nodiscard]] bool needsMore() const;
};

/// All that there is to decrypt with; several threads may use it at once.
class DecryptionKeys {
public:
    /// \param store asked for recipients that none of the identities is
    DecryptionKeys(std::vector<OwnIdentity> identities, std::optional<StoreIdentities> store,
                   std::optional<SharedSecret> password, std::optional<SharedSecret> keyEncryptionKey);
    ~DecryptionKeys();
    DecryptionKeys(const DecryptionKeys&) = delete;
    DecryptionKeys& operator=(const DecryptionKeys&) = delete;

    [[nodiscard]] const std::optional<SharedSecret>& password() const noexcept { return m_password; }
    [[nodiscard]] const std::optional<SharedSecret>& keyEncryptionKey() const noexcept { return m_keyEncryptionKey; }
    /// Whose key is to be tried for a recipient: `attempt` gets it and the outcome `failed`, for now, or why it is none.
    void find(const Norvane::Crypto::CMS::CertificateIdentifier& name, Attempt& attempt) const;

private:
    std::vector<OwnIdentity> m_identities;
    std::optional<StoreIdentities> m_store;
    std::map<std::string, std::vector<const OwnIdentity*>> m_byName; ///< by what is distinctive in a name
    std::optional<SharedSecret> m_password;
    std::optional<SharedSecret> m_keyEncryptionKey;
};

/// Decrypts one structure, of any size, in constant memory. It is read once for each key that is tried, which is the only
/// one as a rule.
class TrialDecryption {
public:
    /// `keys` must outlive this.
    explicit TrialDecryption(const DecryptionKeys& keys);
    ~TrialDecryption();
    TrialDecryption(const TrialDecryption&) = delete;
    TrialDecryption& operator=(const TrialDecryption&) = delete;

    /// Tries the recipients in the structure's order. The clear body goes into `body`, except for an authenticated one, which
    /// waits for `deliver`.
    /// \throws Failure: the structure is malformed, beyond what a message may cost, needs what is not supported whoever has
    /// the key, or nothing is encrypted in it
    DecryptionResult run(StructureFile& file, HeldBody& body);
    /// Gives out the rest of the clear body, after it was decrypted, and releases it.
    void deliver(HeldBody& body);

private:
    using Recipient = Norvane::Crypto::CMS::EnvelopeReader::Recipient;

    void openReader(StructureFile& file);
    void requireSupported(StructureFile& file) const;
    [[nodiscard]] Attempt consider(const Recipient& recipient) const;
    bool tryKey(StructureFile& file, std::size_t number, Attempt& attempt, HeldBody& body);
    bool openWith(std::size_t number, const Attempt& attempt);
    bool decryptInto(StructureFile& file, HeldBody& body);

    const DecryptionKeys& m_keys;
    std::optional<Norvane::Crypto::CMS::EnvelopeReader> m_reader;
    bool m_readerIsUsed = false; ///< a key was chosen
};

} // namespace norvcrypt
