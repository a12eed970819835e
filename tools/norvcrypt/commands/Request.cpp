// norvcrypt request: asks an authority for a certificate.
#include "commands/Command.h"
#include "commands/Force.h"
#include "files/Input.h"
#include "files/Output.h"
#include "openssl/CertificateRequest.h"
#include "openssl/KeyKinds.h"
#include "read/PrivateKeyFile.h"
#include "write/PrivateKeyFile.h"

#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

namespace {

struct RequestOptions {
    std::string key;
    std::optional<std::string> kind;
    std::optional<std::string> passphraseFile;
    RequestContent content;
    std::string out = "-";
    bool force = false;
};

void writeRequest(const std::string& request, OutputFile& out) {
    out.write(request.data(), request.size());
}

/// Key and request are both complete before the first gets its name.
Exit withNewKey(const RequestOptions& options, const Passphrase& passphrase, Inputs& inputs) {
    const auto kind = keyKindNamed(*options.kind);
    if (!kind)
        throw Failure("no kind of key: " + *options.kind + "; there are " + keyKindNames());
    if (passphrase.given() && passphrase.text().empty())
        throw Failure("the passphrase in " + inputName(*options.passphraseFile) +
                      " is empty: it would protect nothing");
    if (options.key == "-")
        throw Failure("give the new key a file with --key");
    OutputFile keyFile(options.key, inputs, OutputFile::Access::owner, existingOf(options.force));
    OutputFile out(options.out, inputs);
    const Norvane::Crypto::RefKey key = makeKey(*kind);
    writePrivateKey(key, passphrase.view(), keyFile);
    writeRequest(makeRequest(options.content, key), out);
    keyFile.settle();
    // A request without its key would be of no use; a key without a request is.
    keyFile.commit();
    out.commit();
    return Exit::good;
}

Exit request(const RequestOptions& options) {
    Inputs inputs;
    const Passphrase passphrase(inputs, options.passphraseFile);
    if (options.kind)
        return withNewKey(options, passphrase, inputs);
    OutputFile out(options.out, inputs);
    const Norvane::Crypto::RefKey key = readPrivateKey(inputs, options.key, passphrase);
    writeRequest(makeRequest(options.content, key), out);
    out.commit();
    return Exit::good;
}

} // namespace

void addRequest(Command& commands, Action& action) {
    auto options = std::make_shared<RequestOptions>();
    Command* command = commands.command(
        "request", "Makes a certificate request (PKCS#10) for an authority, from a private key or with a new one");
    command->option("--key", options->key, "The private key; with --new, where the new one is written")
        ->typeName("KEY")
        ->required();
    Option* const kind =
        command->option("--new", options->kind, "Make the key, of this kind: " + keyKindNames())->typeName("KIND");
    command->option("--passphrase-file", options->passphraseFile, "The key's passphrase is this file's first line")
        ->typeName("FILE");
    command
        ->option("--subject", options->content.subject,
                 "Who asks, in UTF-8, with a backslash in front of commas that belong to a value")
        ->typeName("NAME")
        ->required();
    command->option("--email", options->content.emails, "Mail addresses that the certificate is to be for")
        ->typeName("ADDRESS");
    command->option("--dns", options->content.hosts, "Host names that the certificate is to be for")->typeName("HOST");
    command->option("--out", options->out, "The request, PEM; \"-\" is standard output")
        ->typeName("FILE")
        ->showDefault();
    addForce(*command, options->force)->needs(kind);
    command->note(
        "The authority decides what of it stands in the certificate. openssl req -in FILE -noout -text -verify and "
        "norvcrypt inspect show what a request says.");
    command->example("norvcrypt request --new P-256 --key dora-new.key --subject \"CN=Dora Example,O=Demo,C=DE\" "
                     "--email dora@example.org --out dora.csr");
    command->example("norvcrypt request --key alice.key --subject \"CN=Alice Example\" --email alice@example.org");
    command->whenChosen([options, &action] { action = [options] { return request(*options); }; });
}

} // namespace norvcrypt
