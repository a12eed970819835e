// norvcrypt tls: the options that its commands share.
#include "commands/TlsOptions.h"

namespace norvcrypt {

void addTlsFiles(Command& command, TlsFiles& files, TlsSide side) {
    Option* const certificate =
        command.option("--cert", files.certificate, "The own certificate; further ones in the file are sent with it")
            ->typeName("FILE");
    Option* const key = command.option("--key", files.key, "The private key of the certificate")->typeName("FILE");
    certificate->needs(key)->required(side == TlsSide::server);
    key->needs(certificate)->required(side == TlsSide::server);
    command.option("--passphrase-file", files.passphraseFile, "The key's passphrase is this file's first line")
        ->typeName("FILE")
        ->needs(key);
    command
        .option("--ca", files.ca,
                side == TlsSide::client
                    ? "The trusted certificates, PEM; without it those that this machine trusts"
                    : "The trusted certificates, PEM; their names are sent to clients; without it none is trusted")
        ->typeName("FILE");
    command
        .option("--crl", files.crl,
                "A directory of revocation lists as openssl rehash files them; who has no list passes")
        ->typeName("DIR");
}

void addTimeLimit(Command& command, unsigned int& seconds, const std::string& help) {
    command.option("--time-limit", seconds, help)->typeName("SECONDS")->range(0U, 86400U)->showDefault();
}

void addTls(Command& commands, Action& action) {
    Command* tls = commands.command("tls", "Talks TLS as a client or a server, and checks the files of the server");
    tls->requireCommand();
    tls->example("norvcrypt tls check --root appliance");
    addTlsConnect(*tls, action);
    addTlsServe(*tls, action);
    addTlsCheck(*tls, action);
}

} // namespace norvcrypt
