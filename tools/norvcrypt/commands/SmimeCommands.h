#pragma once

/// \file
/// The commands of `norvcrypt smime`, and what those that read a mail share.

#include "cms/Judging.h"
#include "commands/Command.h"
#include "commands/IdentityOptions.h"
#include "files/HeldBody.h"
#include "files/Input.h"
#include "trust/TrustJudge.h"
#include "trust/TrustOptions.h"

#include <norvcrypto-smime/SMimeReader.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

void addSmimeVerify(Command& smime, Action& action);
void addSmimeDecrypt(Command& smime, Action& action);
void addSmimeInspect(Command& smime, Action& action);

/// The mail, and what it is opened with.
struct MailOptions {
    /// Adds the options to a command.
    explicit MailOptions(Command& command);

    std::string in = "-";
    std::optional<std::string> store;
    IdentityOptions identities;

    /// Whether there is anything to open a mail with.
    [[nodiscard]] bool hasIdentities() const { return store || !identities.files().empty(); }
};

/// What became of a mail, and how it was judged.
struct ReadMail {
    Norvane::Crypto::SMime::Answer answer;
    std::optional<Norvane::Crypto::Trust::Options> trust; ///< when that was asked
    std::string file;
};

/// Reads a mail. \param judge null: trust is not asked \throws Failure: it cannot be read
/// \param lists whether its parts are listed
ReadMail readMail(const MailOptions& options, Inputs& inputs, const TrustJudge* judge, Norvane::MediaOut& content,
                  bool isWhole, bool lists = false);
/// Reads a mail that nothing opens.
ReadMail readMail(const std::string& path, const SignerCertificates& certificates, Inputs& inputs,
                  const TrustJudge* judge);
/// What `norvcrypt smime verify` does with such a mail.
Exit verifyMail(const std::string& path, Inputs& inputs, const std::optional<TrustJudge>& judge,
                const SignerCertificates& certificates, bool json);

} // namespace norvcrypt
