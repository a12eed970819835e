#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "identities/Store.h"
#include "read/CertificateFile.h"
#include "read/PrivateKeyFile.h"
#include "recognise/DigestNames.h"
#include "write/CmsFile.h"

#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/CMSVerification.h>
#include <norvcrypto/KeyStore.h>

#include <array>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;

namespace {

struct SignOptions {
    std::string certificate;
    std::string key;
    std::optional<std::string> store;
    std::string from;
    std::optional<std::string> chain;
    std::optional<std::string> passphraseFile;
    std::string digest = "sha256";
    std::string in = "-";
    std::string out = "-";
    bool pem = false;
};

/// The signer's certificate comes first in its file; what follows belongs to the chain, like the file for the chain.
NVX509::KeyCertificatePair readSigner(const SignOptions& options, Inputs& inputs) {
    if (options.store)
        return signerFor(*options.store, options.from, inputs);
    std::list<NVX509::RefCertificate> chain = readCertificates(inputs, options.certificate);
    const NVX509::RefCertificate certificate = chain.front();
    chain.pop_front();
    if (options.chain)
        chain.splice(chain.end(), readCertificates(inputs, *options.chain));
    const Passphrase passphrase(inputs, options.passphraseFile);
    return {readPrivateKey(inputs, options.key, passphrase), certificate, chain};
}

/// Signs what is read from `body`. A signature over a set of attributes would also be one over another text that has
/// them.
void writeBody(Norvane::MediaIn& body, CMS::SignerMediaOut& signer, const std::string& path) {
    CMS::AttributeSetDetector attributes;
    std::array<unsigned char, 65536> piece{};
    for (int count = body.read(piece.data(), piece.size()); count > 0; count = body.read(piece.data(), piece.size())) {
        attributes.update(piece.data(), static_cast<std::size_t>(count));
        signer.write(piece.data(), static_cast<unsigned int>(count));
    }
    if (attributes.isAttributeSet())
        throw Failure("will not sign " + inputName(path) +
                      ": it is a set of attributes, whose signature would be good for another body, too");
}

Norvane::Buffer signatureOver(const SignOptions& options, Inputs& inputs) {
    const auto digest = digestType(options.digest);
    const NVX509::KeyCertificatePair pair = readSigner(options, inputs);
    Progress progress("signing");
    Norvane::MediaIn body = inputs.open(options.in, &progress);
    Norvane::MemoryMediaOut signature;
    try {
        CMS::SignerMediaOut signer(digest, pair);
        signer.attach(signature);
        writeBody(body, signer, options.in);
        signer.end();
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot sign " + inputName(options.in), failure);
    }
    return signature.content();
}

Exit sign(const SignOptions& options) {
    Inputs inputs;
    // Opened first: a place that cannot be written to should not cost the reading of a long body.
    OutputFile out(options.out, inputs);
    const Norvane::Buffer der = signatureOver(options, inputs);
    writeStructure(out, der, options.pem);
    out.commit();
    return Exit::good;
}

} // namespace

void addSign(Command& commands, Action& action) {
    auto options = std::make_shared<SignOptions>();
    Command* command = commands.command("sign", "Signs a body: a detached CMS signature over its bytes as they are");
    Option* certificate =
        command->option("--cert", options->certificate, "The signer's certificate; further ones in it join the chain")
            ->typeName("FILE");
    Option* key = command->option("--key", options->key, "The signer's private key")->typeName("FILE");
    Option* chain =
        command->option("--chain", options->chain, "Certificates to put beside the signer's")->typeName("FILE");
    Option* passphrase =
        command->option("--passphrase-file", options->passphraseFile, "The key's passphrase is this file's first line")
            ->typeName("FILE");
    Option* store =
        command->option("--store", options->store, "Instead of the above: the store with the signer")->typeName("DIR");
    Option* from =
        command->option("--from", options->from, "The address that the store finds the signer by")->typeName("ADDRESS");
    store->needs(from);
    from->needs(store);
    for (Option* own : {certificate, key, chain, passphrase})
        store->excludes(own);
    command->option("--digest", options->digest, "The digest to sign")->showDefault();
    command->option("--in", options->in, "The body; \"-\" is standard input")->typeName("BODY")->showDefault();
    command->option("--out", options->out, "The signature; \"-\" is standard output")
        ->typeName("SIG.p7s")
        ->showDefault();
    command->flag("--pem", options->pem, "Write PEM instead of DER");
    command->footer(
        "The signer is either --cert and --key, or --store and --from: the identity that norvcrypt bindings "
        "find names for signing, with its chain, as long as its certificate is valid.");
    command->whenChosen([options, &action, certificate, key, store] {
        if (store->empty() && (certificate->empty() || key->empty()))
            throw MissingOption(certificate->empty() ? "--cert" : "--key");
        action = [options] { return sign(*options); };
    });
}

} // namespace norvcrypt
