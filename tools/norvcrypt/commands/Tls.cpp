// norvcrypt tls: the options that its commands share.
#include "commands/TlsOptions.h"

namespace norvcrypt {

void addTlsFiles(CLI::App& command, TlsFiles& files, TlsSide side) {
    CLI::Option* const certificate =
        command
            .add_option("--cert", files.certificate, "The own certificate; further ones in the file are sent with it")
            ->type_name("FILE");
    CLI::Option* const key =
        command.add_option("--key", files.key, "The private key of the certificate")->type_name("FILE");
    certificate->needs(key)->required(side == TlsSide::server);
    key->needs(certificate)->required(side == TlsSide::server);
    command.add_option("--passphrase-file", files.passphraseFile, "The key's passphrase is this file's first line")
        ->type_name("FILE")
        ->needs(key);
    command
        .add_option("--ca", files.ca,
                    side == TlsSide::client
                        ? "The trusted certificates, PEM; without it those that this machine trusts"
                        : "The trusted certificates, PEM; their names are sent to clients; without it none is trusted")
        ->type_name("FILE");
    command
        .add_option("--crl", files.crl,
                    "A directory of revocation lists as openssl rehash files them; who has no list passes")
        ->type_name("DIR");
}

void addTimeLimit(CLI::App& command, unsigned int& seconds, const std::string& help) {
    command.add_option("--time-limit", seconds, help)
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 86400U))
        ->capture_default_str();
}

void addTls(CLI::App& app, Action& action) {
    CLI::App* tls = app.add_subcommand("tls", "Talks TLS as a client or a server, and checks the files of the server");
    tls->require_subcommand(1);
    addTlsConnect(*tls, action);
    addTlsServe(*tls, action);
    addTlsCheck(*tls, action);
}

} // namespace norvcrypt
