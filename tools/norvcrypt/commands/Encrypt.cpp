#include "cms/Encrypting.h"
#include "commands/CertificateDoubts.h"
#include "commands/Command.h"
#include "files/Body.h"
#include "files/Output.h"
#include "identities/Store.h"
#include "many/ManyOptions.h"
#include "openssl/CertificateDetails.h"
#include "openssl/HexDigits.h"
#include "read/CertificateFile.h"
#include "read/KeyEncryptionKey.h"
#include "read/Passphrase.h"
#include "recognise/CipherNames.h"
#include "recognise/DigestNames.h"
#include "write/CmsFile.h"

#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;

namespace {

struct EncryptOptions {
    std::string cipher = "aes-256-cbc";
    std::vector<std::string> recipients;
    std::optional<std::string> store;
    std::vector<std::string> addresses;
    bool oaep = false;
    std::string oaepDigest = "sha256";
    bool keyIdentifier = false;
    std::optional<std::string> passwordFile;
    unsigned int iterations = CMS::PasswordParameters().iterations;
    std::optional<std::string> kekFile;
    std::string kekIdentifier;
    std::unique_ptr<ManyOptions> in;
    std::string out = "-";
    bool pem = false;
};

void warnOfUsage(const NVX509::RefCertificate& certificate, const std::string& path) {
    if (const char* const missing = missingForEncryption(certificate))
        reportError("warning: the certificate in " + inputName(path) +
                    " is not meant for encryption: its key usage has no " + std::string(missing));
}

/// Of several certificates in a file one may be a recipient's and the others its authorities', or each a recipient's:
/// guessing wrong would let somebody read the body, or keep somebody from it.
void addFromFile(Recipients& recipients, const std::string& path, Inputs& inputs) {
    const std::list<NVX509::RefCertificate> certificates = readCertificates(inputs, path);
    if (certificates.size() > 1)
        throw Failure(inputName(path) + " holds " + std::to_string(certificates.size()) +
                      " certificates: give each recipient a file of its own");
    recipients.add(certificates.front(), "in " + inputName(path));
    warnOfDoubts(certificates.front(), path);
    warnOfUsage(certificates.front(), path);
}

/// Whom the store names for the addresses.
void addFromStore(Recipients& recipients, const EncryptOptions& options, Inputs& inputs) {
    const NVX509::RefDirectoryKeyStore store = openStore(*options.store, &inputs);
    for (const std::string& address : options.addresses) {
        const auto identity = identityFor(store, *options.store, address, Store::Purpose::encryption);
        recipients.add(identity.pair->certificate, "of " + identity.folder + " in " + *options.store);
    }
}

void addPassword(Recipients& recipients, const EncryptOptions& options, Inputs& inputs) {
    const Passphrase password(inputs, options.passwordFile);
    const std::string& text = password.text();
    if (text.empty())
        throw Failure("no password in the first line of " + inputName(*options.passwordFile));
    Norvane::Buffer octets(text.data(), static_cast<unsigned int>(text.size()), false);
    octets.protect();
    recipients.add(CMS::EnvelopeRecipient::password(octets, {.iterations = options.iterations}));
}

void addKeyEncryptionKey(Recipients& recipients, const EncryptOptions& options, Inputs& inputs) {
    const Norvane::Buffer identifier = octetsFromHex(options.kekIdentifier);
    if (identifier.length() == 0 || identifier.length() > CMS::maximumParameterOctets)
        throw Failure("--kek-id takes 1 to " + std::to_string(CMS::maximumParameterOctets) +
                      " bytes, as two hexadecimal digits each");
    recipients.add(
        CMS::EnvelopeRecipient::keyEncryptionKey(readKeyEncryptionKey(inputs, *options.kekFile), identifier));
}

Recipients readRecipients(const EncryptOptions& options, Inputs& inputs) {
    RecipientForm form{.keyIdentifier = options.keyIdentifier};
    if (options.oaep)
        form.oaepDigest = digestType(options.oaepDigest);
    Recipients recipients(form);
    for (const std::string& path : options.recipients)
        addFromFile(recipients, path, inputs);
    if (options.store)
        addFromStore(recipients, options, inputs);
    if (options.kekFile)
        addKeyEncryptionKey(recipients, options, inputs);
    if (options.passwordFile)
        addPassword(recipients, options, inputs);
    return recipients;
}

/// What every body is encrypted with.
struct Encryption {
    MessageCipher cipher;
    Recipients recipients;
    bool pem;

    Encryption(const EncryptOptions& options, Inputs& inputs)
        : cipher(messageCipherNamed(options.cipher)),
          recipients(readRecipients(options, inputs)),
          pem(options.pem) {}

    void write(const std::string& in, OutputFile& out, Inputs& inputs, Progress* progress) const {
        Body body(inputs, in, progress);
        StructureStream structure(out, !pem                          ? StructureForm::binary
                                       : recipients.arePkcs7(cipher) ? StructureForm::pemPkcs7
                                                                     : StructureForm::pemCms);
        recipients.encrypt(body, inputName(in), cipher, structure);
        out.commit();
    }
};

Exit encryptMany(const EncryptOptions& options) {
    Inputs shared;
    const Encryption encryption(options, shared);
    encryption.recipients.prepareToShare();
    return options.in->run(shared, false, withEnding(".p7m"), OutputFile::Access::everyone,
                           [&encryption](const Item& item, Inputs& inputs) {
                               OutputFile out(item.output, inputs);
                               encryption.write(item.path, out, inputs, nullptr);
                               return Outcome{.verdict = "encrypted"};
                           });
}

Exit encrypt(const EncryptOptions& options) {
    if (options.in->areMany())
        return encryptMany(options);
    Inputs inputs;
    // Opened first: a place that cannot be written to should not cost the reading of a long body.
    OutputFile out(options.out, inputs);
    const Encryption encryption(options, inputs);
    Progress progress("encrypting");
    encryption.write(options.in->one(), out, inputs, &progress);
    return Exit::good;
}

void addSharedSecrets(Command& command, EncryptOptions& options) {
    Option* password = command
                           .option("--password-file", options.passwordFile,
                                   "Whoever knows the password can decrypt: this file's first line")
                           ->typeName("FILE");
    command
        .option("--iterations", options.iterations,
                "How often the password is hashed: what each guess costs, and each decryption")
        ->range(CMS::minimumPasswordIterations, CMS::maximumPasswordIterations)
        ->typeName("N")
        ->showDefault()
        ->needs(password);
    Option* key = command
                      .option("--kek-file", options.kekFile,
                              "Whoever has the key can decrypt: 16, 24 or 32 bytes, or as many in hexadecimal digits")
                      ->typeName("FILE");
    Option* identifier =
        command.option("--kek-id", options.kekIdentifier, "What that key is called in the structure, for all to read")
            ->typeName("HEX")
            ->needs(key);
    key->needs(identifier);
}

} // namespace

void addEncrypt(Command& commands, Action& action) {
    auto options = std::make_shared<EncryptOptions>();
    Command* command = commands.command(
        "encrypt", "Encrypts a body for one or more recipients: a CMS structure that holds it; whose the certificates "
                   "are is not checked");
    command->option("--cipher", options->cipher, "The cipher: " + messageCipherNames())
        ->typeName("NAME")
        ->showDefault();
    Option* certificates =
        command->option("--to", options->recipients, "The certificates of the recipients, one a file")
            ->typeName("CERT");
    Option* store =
        command->option("--store", options->store, "A store that has recipients by address")->typeName("DIR");
    Option* addresses =
        command->option("--to-address", options->addresses, "Addresses of recipients in the store, beside --to")
            ->typeName("ADDRESS");
    store->needs(addresses);
    addresses->needs(store);
    addSharedSecrets(*command, *options);
    Option* oaep = command->flag("--oaep", options->oaep, "Encrypt with RSAES-OAEP where the key is RSA");
    command->option("--oaep-digest", options->oaepDigest, "Its digest: sha1, sha224, sha256, sha384 or sha512")
        ->typeName("NAME")
        ->showDefault()
        ->needs(oaep);
    command->flag(
        "--key-identifier", options->keyIdentifier,
        "Name recipients by the subject key identifier of their certificates, not by issuer and serial number");
    options->in = std::make_unique<ManyOptions>(
        *command, "--in", "BODY", "The body, or several with --out-dir; \"-\", as without it, is standard input",
        ManyOptions::Outputs::needed, ManyOptions::Json::added);
    command->option("--out", options->out, "The structure; \"-\" is standard output")
        ->typeName("MSG.p7m")
        ->showDefault()
        ->excludes(options->in->outDirectory());
    command->flag("--pem", options->pem, "Write PEM instead of DER");
    command->note(
        "Recipients may be mixed. A key on P-256, P-384, P-521 or X25519 takes part with a key agreement (ECDH), as "
        "its "
        "certificate says; --to names it, since in the store RSA keys alone are found. A recipient in the store is the "
        "identity that norvcrypt bindings find names for encryption, as long as its certificate is valid. The -gcm "
        "ciphers let the recipient see whether somebody changed the "
        "message, and older programs do not read them. A body of more than 256 KiB from a pipe is written in BER, so "
        "that it is never held in memory; with des-cbc, idea-cbc, bf-cbc and cast5-cbc it is, and has less than 2 "
        "GiB. Of several bodies each becomes a structure in --out-dir, named as it with \".p7m\" behind.");
    command->example("norvcrypt encrypt --to bob.pem carol.pem --in message.eml --out for-both.p7m");
    command->example("norvcrypt encrypt --to bob.pem --in message.eml letter.eml --out-dir encrypted");
    command->example("norvcrypt encrypt --store identities --to-address bob@example.org --cipher aes-256-gcm "
                     "--in message.eml --out for-bob.p7m");
    command->example("norvcrypt encrypt --password-file secret --in message.eml --out for-all-who-know.p7m");
    command->whenChosen([options, &action, certificates, store] {
        if (certificates->empty() && store->empty() && !options->passwordFile && !options->kekFile)
            throw MissingOption("--to");
        action = [options] { return encrypt(*options); };
    });
}

} // namespace norvcrypt
