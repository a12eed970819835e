#include "commands/Command.h"
#include "files/Input.h"
#include "files/Output.h"
#include "identities/Store.h"
#include "openssl/CertificateDetails.h"
#include "read/CertificateFile.h"
#include "recognise/CipherNames.h"
#include "write/CmsFile.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <algorithm>
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
    std::string in = "-";
    std::string out = "-";
    bool pem = false;
};

void requireRsa(const NVX509::RefCertificate& certificate, const std::string& whose) {
    if (!hasRsaKey(certificate))
        throw Failure("the certificate " + whose + " has no RSA key: nothing can be encrypted for it");
}

/// Whoever names a certificate may know why it serves all the same; who took the wrong file does not.
void warnOfDoubts(const NVX509::RefCertificate& certificate, const std::string& path) {
    const auto warn = [&path](const char* what) {
        reportError("warning: the certificate in " + inputName(path) + " " + what);
    };
    const Period period = periodAt(certificate, std::time(nullptr));
    if (period == Period::notYetValid)
        warn("is not valid yet");
    else if (period == Period::expired)
        warn("has expired");
    if (!mayEncipherKeys(certificate))
        warn("is not meant for encryption: its key usage has no keyEncipherment");
}

/// A certificate that is named again, by its file or by an address, is one recipient.
void addRecipient(std::list<NVX509::RefCertificate>& recipients, const NVX509::RefCertificate& certificate) {
    // Not with the certificate's own comparison, which refuses negative serial numbers.
    if (std::none_of(recipients.begin(), recipients.end(), [&certificate](const NVX509::RefCertificate& other) {
            return isSameCertificate(other, certificate);
        }))
        recipients.push_back(certificate);
}

/// Of several certificates in a file one may be a recipient's and the others its authorities', or each a recipient's:
/// guessing wrong would let somebody read the body, or keep somebody from it.
NVX509::RefCertificate readRecipient(const std::string& path, Inputs& inputs) {
    const std::list<NVX509::RefCertificate> certificates = readCertificates(inputs, path);
    if (certificates.size() > 1)
        throw Failure(inputName(path) + " holds " + std::to_string(certificates.size()) +
                      " certificates: give each recipient a file of its own");
    requireRsa(certificates.front(), "in " + inputName(path));
    warnOfDoubts(certificates.front(), path);
    return certificates.front();
}

/// Whom the store names for the addresses.
void addFromStore(std::list<NVX509::RefCertificate>& recipients, const EncryptOptions& options, Inputs& inputs) {
    const NVX509::RefDirectoryKeyStore store = openStore(*options.store, &inputs);
    for (const std::string& address : options.addresses) {
        const auto identity = identityFor(store, *options.store, address, Store::Purpose::encryption);
        addRecipient(recipients, identity.certificate);
    }
}

void encryptInto(Norvane::MediaOut& target, const EncryptOptions& options, Inputs& inputs) {
    const Norvane::Crypto::Cipher cipher = cipherNamed(options.cipher).cipher;
    std::list<NVX509::RefCertificate> recipients;
    for (const std::string& path : options.recipients)
        addRecipient(recipients, readRecipient(path, inputs));
    if (options.store)
        addFromStore(recipients, options, inputs);
    Progress progress("encrypting");
    Norvane::MediaIn body = inputs.open(options.in, &progress);
    try {
        CMS::EncrypterMediaOut encrypter(cipher, recipients);
        encrypter.attach(target);
        body.write(encrypter);
        encrypter.end();
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot encrypt " + inputName(options.in), failure);
    }
}

Exit encrypt(const EncryptOptions& options) {
    Inputs inputs;
    // Opened first: a place that cannot be written to should not cost the reading of a long body.
    OutputFile out(options.out, inputs);
    if (options.pem) {
        Norvane::MemoryMediaOut structure;
        encryptInto(structure, options, inputs);
        writeStructure(out, structure.content(), true);
    } else {
        OutputStream structure(out);
        encryptInto(structure, options, inputs);
    }
    out.commit();
    return Exit::good;
}

} // namespace

void addEncrypt(Command& commands, Action& action) {
    auto options = std::make_shared<EncryptOptions>();
    Command* command = commands.command(
        "encrypt", "Encrypts a body for one or more recipients: a CMS structure that holds it; whose the certificates "
                   "are is not checked");
    command->option("--cipher", options->cipher, "The cipher: " + cipherNames())->typeName("NAME")->showDefault();
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
    command->option("--in", options->in, "The body, of less than 2 GiB; \"-\" is standard input")
        ->typeName("BODY")
        ->showDefault();
    command->option("--out", options->out, "The structure; \"-\" is standard output")
        ->typeName("MSG.p7m")
        ->showDefault();
    command->flag("--pem", options->pem, "Write PEM instead of DER");
    command->footer(
        "A recipient in the store is the identity that norvcrypt bindings find names for encryption, as long "
        "as its certificate is valid.");
    command->whenChosen([options, &action, certificates, store] {
        if (certificates->empty() && store->empty())
            throw MissingOption("--to");
        action = [options] { return encrypt(*options); };
    });
}

} // namespace norvcrypt
