#include "commands/SmimeWriting.h"
#include "cms/Sharing.h"
#include "files/Output.h"
#include "files/Spill.h"
#include "identities/Store.h"
#include "read/CertificateFile.h"
#include "recognise/CipherNames.h"
#include "recognise/DigestNames.h"

#include <norvcmsg/Exception.h>

#include <algorithm>
#include <filesystem>
#include <list>
#include <memory>
#include <variant>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;
namespace SMime = Norvane::Crypto::SMime;

namespace {

/// A key store of the process over a directory; an empty handle without one.
NVX509::RefKeyStore keysOf(const std::optional<std::string>& directory, Inputs& inputs) {
    if (!directory)
        return NVX509::RefKeyStore(false);
    NVX509::RefKeyStore keys(true);
    keys->add(openStore(*directory, &inputs).plugin());
    return keys;
}

/// The sentence for people, where there is one.
std::string reasonOf(const Norvane::Exception& failure) {
    if (failure.where() == "SMime::Writer" && failure.parameters().size() == 1)
        if (const auto* const reason = std::get_if<std::string>(&failure.parameters().front()))
            return *reason;
    return inPlainWords(failure);
}

/// Of several certificates in a file one may be a recipient's and the others its authorities', or each a recipient's.
NVX509::RefCertificate recipientIn(const std::string& path, Inputs& inputs) {
    const std::list<NVX509::RefCertificate> certificates = readCertificates(inputs, path);
    if (certificates.size() > 1)
        throw Failure(inputName(path) + " holds " + std::to_string(certificates.size()) +
                      " certificates: give each recipient a file of its own");
    return certificates.front();
}

/// The message is read twice: to learn what is in it, and to write.
void expectTwice(Progress& progress, const std::string& path) {
    std::error_code none;
    const std::uintmax_t size = path == "-" ? 0 : std::filesystem::file_size(path, none);
    if (!none)
        progress.expect(2 * static_cast<std::uint64_t>(size));
}

} // namespace

SmimeWritingOptions::SmimeWritingOptions(Command& command, SmimeWork work) : m_work(work) {
    if (work.signs)
        addSigning(command);
    if (work.encrypts)
        addEncrypting(command);
    addMessage(command);
}

void SmimeWritingOptions::addSigning(Command& command) {
    m_identities.emplace(command);
    command.option("--chain", m_chain, "Certificates to put beside the signers'")->typeName("FILE");
    command.option("--from", m_from, "Whose identity in the store signs; the message's From unless given")
        ->typeName("ADDRESS");
    command
        .option(
            "--digest", m_digest,
            "The digest to sign: what suits the key unless given (sha256 for RSA); receivers read its name in micalg")
        ->typeName("NAME");
    command.flag("--pss", m_pss, "Sign with RSASSA-PSS where the key is RSA");
    command.flag(
        "--opaque", m_opaque,
        "Put the message into the signature: no relay can damage it, and programs without S/MIME do not show it");
}

void SmimeWritingOptions::addEncrypting(Command& command) {
    command.option("--to", m_certificates, "The certificates of recipients, one a file")->typeName("CERT");
    command.option("--to-address", m_addresses, "Addresses of recipients in the store")->typeName("ADDRESS");
    command.flag("--to-self", m_toSelf, "Encrypt for the sender, too, who could not read the message otherwise");
    command.option("--cipher", m_cipher, "The cipher, one of " + contentCipherNames())->typeName("NAME")->showDefault();
    Option* const oaep = command.flag("--oaep", m_oaep, "Encrypt with RSAES-OAEP where the key is RSA");
    command.option("--oaep-digest", m_oaepDigest, "Its digest: sha1, sha224, sha256, sha384 or sha512")
        ->typeName("NAME")
        ->showDefault()
        ->needs(oaep);
    if (!m_work.signs)
        command.option("--from", m_from, "Who the sender is, for --to-self; the message's From unless given")
            ->typeName("ADDRESS");
}

void SmimeWritingOptions::addMessage(Command& command) {
    command
        .option("--store", m_store,
                m_work.signs ? "A store that has identities by address" : "A store that has recipients by address")
        ->typeName("DIR");
    command.flag("--protect-header", m_protectHeader,
                 m_work.encrypts
                     ? "Repeat the header fields inside, and write \"[...]\" for the Subject outside (RFC 9788)"
                     : "Sign the header fields, too: repeat them inside (RFC 9788)");
    command.option("--line-ends", m_lineEnds, "How lines end: same (as in the message), crlf or lf")
        ->among({"same", "crlf", "lf"})
        ->typeName("HOW")
        ->showDefault();
    m_in = std::make_unique<ManyOptions>(
        command, "--in", "MAIL",
        "The message: header fields, an empty line, the body; or several with --out-dir, where each keeps its name; "
        "\"-\", as without it, is standard input",
        ManyOptions::Outputs::needed, ManyOptions::Json::added);
    command.option("--out", m_out, "The message that is made; \"-\" is standard output")
        ->typeName("MAIL")
        ->showDefault()
        ->excludes(m_in->outDirectory());
}

bool SmimeWritingOptions::signsWithFiles() const {
    return m_identities &&
           std::ranges::any_of(m_identities->options(), [](const Option* one) { return !one->empty(); });
}

std::optional<std::string> SmimeWritingOptions::missing() const {
    if (m_work.signs && (signsWithFiles() || !m_store))
        if (auto option = m_identities->missing())
            return option;
    const bool needsStore = !m_addresses.empty() || (m_toSelf && !signsWithFiles()) || (m_from && !signsWithFiles());
    if (needsStore && !m_store)
        return "--store";
    if (m_work.encrypts && m_certificates.empty() && m_addresses.empty() && !m_store)
        return "--to";
    return std::nullopt;
}

SMime::SignOptions SmimeWritingOptions::signing(const NVX509::RefKeyStore& keys, Inputs& inputs) const {
    SMime::SignOptions options;
    options.form = m_opaque ? SMime::SigningForm::opaque : SMime::SigningForm::multipartSigned;
    if (signsWithFiles()) {
        for (const OwnIdentity& identity : readIdentities(m_identities->files(), inputs))
            options.signers.emplace_back(
                NVX509::KeyCertificatePair(identity.key, identity.certificate, identity.chain));
    } else {
        options.keys = keys;
        if (m_from)
            options.from = mailAddress(*m_from);
    }
    if (m_digest)
        options.digest = digestType(*m_digest);
    options.pss = m_pss;
    if (m_chain)
        for (const NVX509::RefCertificate& certificate : readCertificates(inputs, *m_chain))
            options.certificates.push_back(certificate);
    return options;
}

SMime::EncryptOptions SmimeWritingOptions::encrypting(const NVX509::RefKeyStore& keys,
                                                      const std::vector<CMS::SignedWriter::Signer>& signers,
                                                      Inputs& inputs) const {
    SMime::EncryptOptions options;
    options.cipher = contentCipherNamed(m_cipher);
    options.keys = keys;
    for (const std::string& path : m_certificates)
        options.certificates.push_back(recipientIn(path, inputs));
    for (const std::string& address : m_addresses)
        options.addresses.push_back(mailAddress(address));
    if (m_oaep)
        options.oaep = CMS::OaepParameters{.digest = digestType(m_oaepDigest)};
    options.addressesOfMessage = m_certificates.empty() && m_addresses.empty();
    if (m_toSelf && signsWithFiles()) {
        for (const CMS::SignedWriter::Signer& signer : signers)
            options.certificates.push_back(signer.pair->certificate);
    } else {
        options.sender = m_toSelf;
        if (m_from)
            options.from = mailAddress(*m_from);
    }
    return options;
}

SMime::WriteOptions SmimeWritingOptions::how() const {
    SMime::WriteOptions options;
    options.lineEnds = m_lineEnds == "crlf" ? SMime::LineEnds::crlf
                       : m_lineEnds == "lf" ? SMime::LineEnds::lf
                                            : SMime::LineEnds::asMessage;
    options.protectHeader = m_protectHeader;
    options.spillTemplate = spillTemplate();
    return options;
}

std::vector<SMime::Wrapping> SmimeWritingOptions::shells(Inputs& inputs) const {
    const NVX509::RefKeyStore keys = keysOf(m_store, inputs);
    std::vector<SMime::Wrapping> shells;
    std::vector<CMS::SignedWriter::Signer> signers;
    if (m_work.signs) {
        SMime::SignOptions options = signing(keys, inputs);
        signers = options.signers;
        shells.emplace_back(std::move(options));
    }
    if (m_work.encrypts)
        shells.emplace_back(encrypting(keys, signers, inputs));
    return shells;
}

void SmimeWritingOptions::write(const std::string& in, OutputFile& out, const std::vector<SMime::Wrapping>& shells,
                                Inputs& inputs, Progress* progress) const {
    const Norvane::MediaIn message = inputs.open(in, progress);
    if (progress != nullptr)
        expectTwice(*progress, in);
    OutputStream target(out);
    try {
        SMime::wrap(message, shells, target, how());
    } catch (const Norvane::Exception& failure) {
        const std::string reason = reasonOf(failure);
        const std::string what = (m_work.encrypts ? "cannot encrypt " : "cannot sign ") + inputName(in) + ": " + reason;
        // Nobody in the store is an answer, and it is no.
        if (reason.starts_with("there is no certificate for ") ||
            reason.starts_with("there is no key to sign with for "))
            throw Refusal(what);
        throw Failure(what);
    }
    out.commit();
}

Exit SmimeWritingOptions::runMany() const {
    Inputs shared;
    const std::vector<SMime::Wrapping> around = shells(shared);
    for (const SMime::Wrapping& shell : around) {
        if (const auto* const signing = std::get_if<SMime::SignOptions>(&shell)) {
            for (const CMS::SignedWriter::Signer& signer : signing->signers)
                warm(signer.pair);
            warmAll(signing->certificates);
        } else if (const auto* const encrypting = std::get_if<SMime::EncryptOptions>(&shell)) {
            warmAll(encrypting->certificates);
        }
    }
    const char* const done = !m_work.encrypts ? "signed" : m_work.signs ? "signed and encrypted" : "encrypted";
    return m_in->run(
        shared, false, [](const std::string& name) { return name; }, OutputFile::Access::everyone,
        [&](const Item& item, Inputs& inputs) {
            OutputFile out(item.output, inputs);
            write(item.path, out, around, inputs, nullptr);
            return Outcome{.verdict = done};
        });
}

Exit SmimeWritingOptions::run() const {
    if (m_in->areMany())
        return runMany();
    Inputs inputs;
    // Opened first: a place that cannot be written to should not cost the reading of a long message.
    OutputFile out(m_out, inputs);
    const std::vector<SMime::Wrapping> around = shells(inputs);
    Progress progress(m_work.encrypts ? "encrypting" : "signing");
    write(m_in->one(), out, around, inputs, &progress);
    return Exit::good;
}

void addSmimeWriting(Command& command, Action& action, SmimeWork work) {
    auto options = std::make_shared<SmimeWritingOptions>(command, work);
    command.whenChosen([options, &action] {
        if (const auto missing = options->missing())
            throw MissingOption(*missing);
        action = [options] { return options->run(); };
    });
}

} // namespace norvcrypt
