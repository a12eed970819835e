#pragma once

/// \file
/// The commands of `norvcrypt smime`, and what those that read a mail share.

#include "cms/Judging.h"
#include "commands/Command.h"
#include "commands/IdentityOptions.h"
#include "commands/SecretOptions.h"
#include "files/HeldBody.h"
#include "files/Input.h"
#include "many/ManyOptions.h"
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
    MailOptions(Command& command, ManyOptions::Outputs outputs);

    std::unique_ptr<ManyOptions> in;
    std::optional<std::string> store;
    IdentityOptions identities;
    SecretOptions secrets;

    /// Whether there is anything to open a mail with.
    [[nodiscard]] bool canOpen() const { return store || secrets.any() || !identities.files().empty(); }
};

/// What became of a mail, and how it was judged.
struct ReadMail {
    Norvane::Crypto::SMime::Answer answer;
    std::optional<Norvane::Crypto::Trust::Options> trust; ///< when that was asked
    std::string file;
};

/// Reads mails, with what is read once for all of them: several threads may do so at once.
class MailReading {
public:
    /// \param lists whether the parts of mails are listed
    MailReading(const MailOptions& options, Inputs& inputs, const TrustJudge* judge, bool isWhole, bool lists = false);
    /// For mails that nothing opens.
    MailReading(const SignerCertificates& certificates, const TrustJudge* judge);
    ~MailReading();
    MailReading(const MailReading&) = delete;
    MailReading& operator=(const MailReading&) = delete;

    /// \throws Failure: it cannot be read
    ReadMail read(const std::string& path, Inputs& inputs, Norvane::MediaOut& content,
                  Progress* progress = nullptr) const;

private:
    std::unique_ptr<const Norvane::Crypto::CMS::KeyLookup> m_keys;
    std::optional<SharedSecret> m_password;
    std::optional<SharedSecret> m_keyEncryptionKey;
    Norvane::Crypto::SMime::ReadOptions m_options;
};

/// The line of one of many mails.
Outcome outcomeOf(const ReadMail& mail, Exit exit, bool inJson);
/// What `norvcrypt smime verify` does with such a mail.
Exit verifyMail(const std::string& path, Inputs& inputs, const std::optional<TrustJudge>& judge,
                const SignerCertificates& certificates, bool json);
/// The same for one of many.
Outcome verifyOneMail(const Item& item, Inputs& inputs, const MailReading& reading);

} // namespace norvcrypt
