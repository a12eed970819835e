#pragma once

/// \file
/// Decrypting with several identities, and telling for each recipient what became of it.

#include "base/Failure.h"
#include "identities/IdentityOptions.h"

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
    /// Tries the recipients in the structure's order. `good` when the body was decrypted; `failed` when it might have been
    /// if all that the message has were supported; else `refused`.
    /// \throws Failure: nothing is encrypted in the structure, or in a way that is not supported
    Exit run(const std::string& name);
    /// A line for each recipient that was tried, or why there was none to try.
    [[nodiscard]] std::vector<std::string> report() const;
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
