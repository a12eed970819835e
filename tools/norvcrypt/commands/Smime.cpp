// norvcrypt smime: what its commands that read a mail share.
#include "cms/Sharing.h"
#include "commands/SmimeCommands.h"
#include "commands/SmimeWriting.h"
#include "files/Progress.h"
#include "files/Spill.h"
#include "identities/Store.h"
#include "smime/MailReport.h"

#include <norvcmsg/Escape.h>

#include <list>
#include <utility>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;

namespace {

std::list<NVX509::KeyCertificatePair> pairsOf(const MailOptions& options, Inputs& inputs) {
    std::list<NVX509::KeyCertificatePair> pairs;
    for (const OwnIdentity& identity : readIdentities(options.identities.files(), inputs)) {
        pairs.emplace_back(identity.key, identity.certificate, identity.chain);
        warm(pairs.back()); // threads share it
    }
    return pairs;
}

/// The keys in files, and after them those of a store.
class MailKeys : public CMS::KeyLookup {
public:
    MailKeys(const MailOptions& options, Inputs& inputs) : m_files(pairsOf(options, inputs)) {
        if (options.store)
            m_store.emplace(*options.store, inputs);
    }
    [[nodiscard]] NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier& recipient) const override {
        auto pair = m_files.find(recipient);
        if (pair || !m_store)
            return pair;
        const auto stored = m_store->find(recipient);
        return stored ? NVX509::KeyCertificatePair(stored->key, stored->certificate, stored->chain) : pair;
    }
    [[nodiscard]] bool mayFind(CMS::NamedBy namedBy, const Norvane::Buffer& octets) const noexcept override {
        return m_store || m_files.mayFind(namedBy, octets);
    }

private:
    CMS::KeyListLookup m_files;
    std::optional<StoreIdentities> m_store;
};

} // namespace

MailOptions::MailOptions(Command& command, ManyOptions::Outputs outputs) : identities(command), secrets(command) {
    command
        .option("--store", store,
                "A store: its identities with a key are tried after the others, and its certificates are those of "
                "signers that the mail has none for, and help to find a way to a root")
        ->typeName("DIR");
    in = std::make_unique<ManyOptions>(command, "--in", "MAIL",
                                       "The mail as it was sent, or several; \"-\", as without it, is standard input",
                                       outputs, ManyOptions::Json::ofCommand);
}

MailReading::MailReading(const MailOptions& options, Inputs& inputs, const TrustJudge* judge, bool isWhole, bool lists)
    : MailReading({.given = {},
                   .ofStore = options.store ? certificatesOfStore(*options.store, inputs)
                                            : std::list<NVX509::RefCertificate>()},
                  judge) {
    if (judge != nullptr)
        judge->addIntermediates({m_options.certificates.begin(), m_options.certificates.end()});
    m_keys = std::make_unique<const MailKeys>(options, inputs);
    m_options.keys = m_keys.get();
    m_password = options.secrets.password(inputs);
    m_options.password = m_password ? &m_password->octets : nullptr;
    m_keyEncryptionKey = options.secrets.keyEncryptionKey(inputs);
    m_options.keyEncryptionKey = m_keyEncryptionKey ? &m_keyEncryptionKey->octets : nullptr;
    m_options.wholeMessage = isWhole;
    m_options.listParts = lists;
}

MailReading::MailReading(const SignerCertificates& certificates, const TrustJudge* judge) {
    const auto all = certificates.all();
    warmAll(all);
    m_options.certificates.assign(all.begin(), all.end());
    m_options.onlyTheseCertificates = certificates.given.has_value();
    m_options.spillTemplate = spillTemplate();
    m_options.explain = true;
    if (judge != nullptr) {
        m_options.trust = &judge->verifier();
        m_options.trustOptions = judge->request().options;
        m_options.from = judge->request().from;
    }
}

MailReading::~MailReading() = default;

ReadMail MailReading::read(const std::string& path, Inputs& inputs, Norvane::MediaOut& content,
                           Progress* progress) const {
    ReadMail mail;
    mail.file = path;
    if (m_options.trust != nullptr)
        mail.trust = m_options.trustOptions;
    const Norvane::MediaIn in = inputs.open(path, progress);
    mail.answer = SMime::read(in, content, m_options);
    return mail;
}

Outcome outcomeOf(const ReadMail& mail, Exit exit, bool inJson) {
    const SMime::Answer& answer = mail.answer;
    std::string verdict = SMime::nameOf(answer.verdict);
    if (!answer.notCovered.empty())
        verdict += ", in part";
    return {.exit = exit,
            .verdict = verdict,
            .reason = Norvane::escapeForDisplay(answer.detail),
            .facts = inJson ? mailFacts(answer, mail.trust, mail.file) : Description::object()};
}

void addSmime(Command& commands, Action& action) {
    Command* smime = commands.command(
        "smime", "Whole S/MIME messages: signs, encrypts, verifies, decrypts them and takes them apart");
    smime->requireCommand();
    smime->example("norvcrypt smime sign --store identities --in letter.eml --out letter-mine.eml");
    smime->example("norvcrypt smime verify --in letter-signed.eml --ca root.pem");
    addSmimeSign(*smime, action);
    addSmimeEncrypt(*smime, action);
    addSmimeSignEncrypt(*smime, action);
    addSmimeVerify(*smime, action);
    addSmimeDecrypt(*smime, action);
    addSmimeInspect(*smime, action);
}

} // namespace norvcrypt
