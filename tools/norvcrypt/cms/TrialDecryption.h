#pragma once

/// \file
/// Decrypting with several identities, and what became of each recipient.

#include "identities/OwnIdentity.h"

#include <norvcmsg/Media.h>
#include <norvcrypto/CMSEncryptionMedia.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// What one recipient of the structure came to.
struct Attempt {
    enum class Outcome : int {
        decrypted,
        unnamed,    ///< its serial number is negative: no key can be asked for
        noKey,      ///< none of the identities is named
        foreignKey, ///< the private key does not belong to the certificate
        noRsaKey,
        failed, ///< the message is damaged, or its cipher unknown
    };
    std::string recipient; ///< issuer and serial number, to be escaped; empty when it is unnamed
    Outcome outcome = Outcome::decrypted;
    std::optional<OwnIdentity> identity; ///< whose key was tried
};

/// What one structure came to.
struct DecryptionResult {
    bool decrypted = false;
    bool contentMissing = false;   ///< the encrypted body is not in the structure
    std::vector<Attempt> attempts; ///< in the structure's order
};

/// Decrypts one structure. The clear body is held back, in memory and beyond a limit in a private file without a name,
/// until a key has served: an attempt that fails can have written some of it, or garbage.
class TrialDecryption {
public:
    explicit TrialDecryption(std::vector<OwnIdentity> identities);
    ~TrialDecryption();
    TrialDecryption(const TrialDecryption&) = delete;
    TrialDecryption& operator=(const TrialDecryption&) = delete;

    /// Decodes the structure. \throws Norvane::Exception: it is malformed
    void open(Norvane::MediaIn& structure);
    /// Tries the recipients in the structure's order until a key serves. \throws Failure: nothing is encrypted in the
    /// structure, which messages call `name`
    DecryptionResult run(const std::string& name);
    /// The clear body, once a key has served.
    [[nodiscard]] Norvane::MediaIn body() const;

    struct State;

private:
    std::shared_ptr<State> m_state;
    std::optional<Norvane::Crypto::CMS::DecrypterMediaIn> m_decrypter;
};

} // namespace norvcrypt
