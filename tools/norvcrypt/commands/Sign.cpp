#include "cms/Sharing.h"
#include "cms/Signing.h"
#include "commands/CertificateDoubts.h"
#include "commands/Command.h"
#include "commands/IdentityOptions.h"
#include "files/Body.h"
#include "files/Output.h"
#include "identities/Store.h"
#include "many/ManyOptions.h"
#include "read/CertificateFile.h"
#include "recognise/DigestNames.h"
#include "write/CmsFile.h"

#include <norvcrypto/KeyStore.h>

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

namespace {

struct SignOptions {
    std::optional<IdentityOptions> identities;
    std::optional<std::string> store;
    std::string from;
    std::optional<std::string> chain;
    std::optional<std::string> digest;
    SignatureForm form;
    std::unique_ptr<ManyOptions> in;
    std::string out = "-";
    bool pem = false;
};

/// What follows a signer's certificate in its file belongs to the chain, like the file for the chain.
std::vector<NVX509::KeyCertificatePair> readSigners(const SignOptions& options, Inputs& inputs) {
    if (options.store)
        return {signerFor(*options.store, options.from, inputs)};
    std::vector<NVX509::KeyCertificatePair> signers;
    std::list<NVX509::RefCertificate> further;
    if (options.chain)
        further = readCertificates(inputs, *options.chain);
    const std::vector<IdentityFiles> files = options.identities->files();
    for (OwnIdentity& identity : readIdentities(files, inputs)) {
        const IdentityFiles& own = files[signers.size()];
        warnOfDoubts(identity.certificate, own.pkcs12 ? *own.pkcs12 : *own.certificate);
        identity.chain.insert(identity.chain.end(), further.begin(), further.end());
        signers.emplace_back(identity.key, identity.certificate, identity.chain);
    }
    return signers;
}

/// What every body is signed with.
struct Signing {
    std::vector<NVX509::KeyCertificatePair> signers;
    SignatureForm form;
    bool pem;

    Signing(const SignOptions& options, Inputs& inputs) : form(options.form), pem(options.pem) {
        if (options.digest)
            form.digest = digestType(*options.digest);
        signers = readSigners(options, inputs);
    }

    void write(const std::string& in, OutputFile& out, Inputs& inputs, Progress* progress) const {
        Body body(inputs, in, progress);
        StructureStream structure(out, !pem                    ? StructureForm::binary
                                       : form.isPkcs7(signers) ? StructureForm::pemPkcs7
                                                               : StructureForm::pemCms);
        sign(body, inputName(in), signers, form, structure);
        out.commit();
    }
};

Exit signMany(const SignOptions& options) {
    Inputs shared;
    const Signing signing(options, shared);
    for (const NVX509::KeyCertificatePair& signer : signing.signers)
        warm(signer);
    return options.in->run(shared, false, withEnding(options.form.attached ? ".p7m" : ".p7s"),
                           OutputFile::Access::everyone, [&signing](const Item& item, Inputs& inputs) {
                               OutputFile out(item.output, inputs);
                               signing.write(item.path, out, inputs, nullptr);
                               return Outcome{.verdict = "signed"};
                           });
}

Exit sign(const SignOptions& options) {
    if (options.in->areMany())
        return signMany(options);
    Inputs inputs;
    // Opened first: a place that cannot be written to should not cost the reading of a long body.
    OutputFile out(options.out, inputs);
    const Signing signing(options, inputs);
    Progress progress("signing");
    signing.write(options.in->one(), out, inputs, &progress);
    return Exit::good;
}

} // namespace

void addSign(Command& commands, Action& action) {
    auto options = std::make_shared<SignOptions>();
    Command* command = commands.command(
        "sign", "Signs a body: a CMS signature over its bytes as they are, detached unless --attached is given");
    options->identities.emplace(*command);
    Option* chain =
        command->option("--chain", options->chain, "Certificates to put beside the signers'")->typeName("FILE");
    Option* store =
        command->option("--store", options->store, "Instead of the above: the store with the signer")->typeName("DIR");
    Option* from =
        command->option("--from", options->from, "The address that the store finds the signer by")->typeName("ADDRESS");
    store->needs(from);
    from->needs(store);
    store->excludes(chain);
    for (const Option* own : options->identities->options())
        store->excludes(own);
    command
        ->option("--digest", options->digest,
                 "The digest to sign: sha256 unless given, or what Ed25519 and Ed448 keys demand, who take no other")
        ->typeName("NAME");
    command->flag("--attached", options->form.attached, "Put the body into the structure");
    command->flag("--signed-attributes", options->form.signedAttributes,
                  "Sign attributes: the body's type and digest, the time, the ciphers that the signer reads, and which "
                  "certificate it is (signing-certificate-v2); always so with Ed25519 and Ed448 keys");
    command->flag("--pss", options->form.pss, "Sign with RSASSA-PSS where the key is RSA");
    command->flag("--key-identifier", options->form.keyIdentifier,
                  "Name signers by the subject key identifier of their certificates, not by issuer and serial number");
    options->in = std::make_unique<ManyOptions>(
        *command, "--in", "BODY", "The body, or several with --out-dir; \"-\", as without it, is standard input",
        ManyOptions::Outputs::needed, ManyOptions::Json::added);
    command->option("--out", options->out, "The signature; \"-\" is standard output")
        ->typeName("SIG.p7s")
        ->showDefault()
        ->excludes(options->in->outDirectory());
    command->flag("--pem", options->pem, "Write PEM instead of DER");
    command->note(
        "Each signer is --cert FILE --key FILE [--passphrase-file FILE], or --p12 FILE --passphrase-file FILE; further "
        "certificates in the file of --cert join the chain. Or the signer is --store and --from: the identity that "
        "norvcrypt bindings find names for signing, with its chain, as long as its certificate is valid. An attached "
        "body of more than 256 KiB is written in BER when it comes from a pipe or an elliptic curve key signs, so that "
        "it is never held in memory. Of several bodies each gets a signature in --out-dir, named as it with \".p7s\" "
        "behind "
        "(\".p7m\" with --attached).");
    command->example(
        "norvcrypt sign --cert alice.pem --key alice.key --chain ca.pem --in message.eml --out by-alice.p7s");
    command->example("norvcrypt sign --cert alice.pem --key alice.key --in message.eml letter.eml --out-dir signed");
    command->example("norvcrypt sign --store identities --from bob@example.org --in message.eml --out by-bob.p7s");
    command->whenChosen([options, &action, store] {
        if (const auto missing = options->identities->missing(); missing && store->empty())
            throw MissingOption(*missing);
        action = [options] { return sign(*options); };
    });
}

} // namespace norvcrypt
