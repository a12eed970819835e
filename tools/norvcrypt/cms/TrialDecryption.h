#pragma once

/// \file
/// Decrypting with several identities, and what became of each recipient.

#include "identities/OwnIdentity.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSEncryptionMedia.h>

#include <list>
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
        failed,      ///< the message is damaged
        unsupported, ///< it needs `algorithm`
        notTried,    ///< the message has more recipients than a message may cost
    };
    std::string recipient; ///< issuer and serial number, to be escaped; empty when it is unnamed
    Outcome outcome = Outcome::decrypted;
    std::optional<OwnIdentity> identity; ///< whose key was tried
    std::string algorithm;               ///< when it is unsupported
};

/// What one structure came to.
struct DecryptionResult {
    bool decrypted = false;
    bool contentMissing = false;        ///< the encrypted body is not in the structure
    std::vector<Attempt> attempts;      ///< in the structure's order
    std::list<std::string> unsupported; ///< what was left out of the message since it is not supported

    /// Not decrypted, and might have been if all that the message has were supported.
    [[nodiscard]] bool needsMore() const;
};

/// With commas.
std::string inOneLine(const std::list<std::string>& names);

/// Decrypts one structure. The clear body is held back, in memory and beyond a limit in a private file without a name,
/// until it is known to be decrypted: an attempt that fails can have written some of it, or garbage.
class TrialDecryption {
public:
    explicit TrialDecryption(std::vector<OwnIdentity> identities);
    ~TrialDecryption();
    TrialDecryption(const TrialDecryption&) = delete;
    TrialDecryption& operator=(const TrialDecryption&) = delete;

    /// Decodes the structure, which messages call `name`; what it has beside recipients that can be tried is left out.
    /// \throws Norvane::Exception: it is malformed
    /// \throws Failure: it is sound, and needs what is not supported
    void open(Norvane::MediaIn& structure, const std::string& name);
    /// Tries the recipients in the structure's order. \throws Failure: nothing is encrypted in the structure, or in a way
    /// that is not supported
    DecryptionResult run(const std::string& name);
    /// The clear body, once it is decrypted.
    [[nodiscard]] Norvane::MediaIn body() const;

    struct State;

private:
    void decode(Norvane::MediaIn& structure);
    [[nodiscard]] Norvane::Buffer copied() const;
    void refuseUnsupported(const std::string& name) const;

    std::shared_ptr<State> m_state;
    Norvane::SwapBufferMediaOut m_copy; ///< the structure as it was read, for a second look
    Norvane::SwapBufferMediaOut m_body;
    std::optional<Norvane::Crypto::CMS::DecrypterMediaIn> m_decrypter;
    std::list<std::string> m_unsupported;
};

} // namespace norvcrypt
