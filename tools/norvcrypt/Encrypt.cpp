#include "CipherNames.h"
#include "Command.h"
#include "Input.h"
#include "Material.h"
#include "OpenSsl.h"
#include "Output.h"
#include "Structure.h"

#include <norvcrypto/CMSEncryptionMedia.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;
namespace CMS = Norvane::Crypto::CMS;

namespace {

struct EncryptOptions {
    std::string cipher = "aes-256-cbc";
    std::vector<std::string> recipients;
    std::string in = "-";
    std::string out = "-";
    bool pem = false;
};

/// Of several certificates in a file one may be a recipient's and the others its authorities', or each a recipient's:
/// guessing wrong would let somebody read the body, or keep somebody from it.
NVX509::RefCertificate readRecipient(const std::string& path, Inputs& inputs) {
    const std::list<NVX509::RefCertificate> certificates = readCertificates(inputs, path);
    if (certificates.size() > 1)
        throw Failure(inputName(path) + " holds " + std::to_string(certificates.size()) +
                      " certificates: give each recipient a file of its own");
    const QuietQuestion quiet;
    const EVP_PKEY* const key = X509_get0_pubkey(certificates.front());
    if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA)
        throw Failure("the certificate in " + inputName(path) + " has no RSA key: nothing can be encrypted for it");
    return certificates.front();
}

void encryptInto(Norvane::MediaOut& target, const EncryptOptions& options, Inputs& inputs) {
    const Norvane::Crypto::Cipher cipher = cipherNamed(options.cipher).cipher;
    std::list<NVX509::RefCertificate> recipients;
    for (const std::string& path : options.recipients)
        recipients.push_back(readRecipient(path, inputs));
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
    OutputFile out(options.out);
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

void addEncrypt(CLI::App& app, Action& action) {
    auto options = std::make_shared<EncryptOptions>();
    CLI::App* command = app.add_subcommand(
        "encrypt", "Encrypts a body for one or more recipients: a CMS structure that holds it; whose the certificates "
                   "are is not checked");
    command->add_option("--cipher", options->cipher, "The cipher: " + cipherNames())
        ->type_name("NAME")
        ->capture_default_str();
    command->add_option("--to", options->recipients, "The certificates of the recipients, one a file")
        ->type_name("CERT")
        ->required();
    command->add_option("--in", options->in, "The body; \"-\" is standard input")
        ->type_name("BODY")
        ->capture_default_str();
    command->add_option("--out", options->out, "The structure; \"-\" is standard output")
        ->type_name("MSG.p7m")
        ->capture_default_str();
    command->add_flag("--pem", options->pem, "Write PEM instead of DER");
    command->callback([options, &action] { action = [options] { return encrypt(*options); }; });
}

} // namespace norvcrypt
