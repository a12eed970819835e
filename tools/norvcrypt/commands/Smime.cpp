// norvcrypt smime: what its commands that read a mail share.
#include "commands/SmimeCommands.h"
#include "commands/SmimeWriting.h"
#include "files/Progress.h"
#include "files/Spill.h"
#include "identities/Store.h"

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
    for (const OwnIdentity& identity : readIdentities(options.identities.files(), inputs))
        pairs.emplace_back(identity.key, identity.certificate, identity.chain);
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

ReadMail readMail(const std::string& path, SMime::ReadOptions reading, Inputs& inputs, const TrustJudge* judge,
                  Norvane::MediaOut& content) {
    reading.spillTemplate = spillTemplate();
    reading.explain = true;
    ReadMail mail;
    mail.file = path;
    if (judge != nullptr) {
        reading.trust = &judge->verifier();
        reading.trustOptions = judge->request().options;
        reading.from = judge->request().from;
        mail.trust = reading.trustOptions;
    }
    Progress progress("reading");
    const Norvane::MediaIn in = inputs.open(path, &progress);
    mail.answer = SMime::read(in, content, reading);
    return mail;
}

} // namespace

MailOptions::MailOptions(Command& command) : identities(command) {
    command
        .option("--store", store,
                "A store: its identities with a key are tried after the others, and its certificates are those of "
                "signers that the mail has none for")
        ->typeName("DIR");
    command.option("--in", in, "The mail as it was sent; \"-\" is standard input")->typeName("MAIL")->showDefault();
}

ReadMail readMail(const MailOptions& options, Inputs& inputs, const TrustJudge* judge, Norvane::MediaOut& content,
                  bool isWhole, bool lists) {
    const MailKeys keys(options, inputs);
    SMime::ReadOptions reading;
    reading.keys = &keys;
    reading.wholeMessage = isWhole;
    reading.listParts = lists;
    if (options.store) {
        const auto certificates = certificatesOfStore(*options.store, inputs);
        reading.certificates.assign(certificates.begin(), certificates.end());
    }
    return readMail(options.in, std::move(reading), inputs, judge, content);
}

ReadMail readMail(const std::string& path, const SignerCertificates& certificates, Inputs& inputs,
                  const TrustJudge* judge) {
    SMime::ReadOptions reading;
    const auto all = certificates.all();
    reading.certificates.assign(all.begin(), all.end());
    reading.onlyTheseCertificates = certificates.given.has_value();
    Norvane::MediaOut nowhere = Norvane::NullMediaOut();
    return readMail(path, std::move(reading), inputs, judge, nowhere);
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
