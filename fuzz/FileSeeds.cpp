#include "Seeds.h"
#include "TrustAnchor.h"

#include <openssl/ssl.h>

#include <utility>

namespace fuzz {

namespace {

/// What has been written into one end of a connection in memory.
std::string saidBy(BIO* out) {
    char* octets = nullptr;
    const long length = BIO_get_mem_data(out, &octets);
    std::string said(octets, static_cast<std::size_t>(length));
    BIO_reset(out);
    return said;
}

/// What a client of a version says first, and what a server answers.
std::pair<std::string, std::string> handshake(int version, const norvauthority::Identity& server, const char* ciphers) {
    SSL_CTX* clients = SSL_CTX_new(TLS_client_method());
    SSL_CTX* servers = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_max_proto_version(clients, version);
    if (ciphers != nullptr) {
        SSL_CTX_set_cipher_list(clients, ciphers);
    }
    const norvauthority::X509Ptr certificate = server.certificate.x509();
    SSL_CTX_use_certificate(servers, certificate.get());
    SSL_CTX_use_PrivateKey(servers, server.key.get());
    SSL* client = SSL_new(clients);
    SSL* peer = SSL_new(servers);
    BIO* clientSays = BIO_new(BIO_s_mem());
    BIO* serverHears = BIO_new(BIO_s_mem());
    BIO* serverSays = BIO_new(BIO_s_mem());
    SSL_set_bio(client, BIO_new(BIO_s_mem()), clientSays);
    SSL_set_bio(peer, serverHears, serverSays);
    SSL_connect(client); // wants to read the answer
    const std::string first = saidBy(clientSays);
    BIO_write(serverHears, first.data(), static_cast<int>(first.size()));
    SSL_accept(peer); // likewise
    const std::string second = saidBy(serverSays);
    SSL_free(client);
    SSL_free(peer);
    SSL_CTX_free(clients);
    SSL_CTX_free(servers);
    return {first, second};
}

} // namespace

void fileSeeds() {
    const norvauthority::Key& key = trustKey();
    const std::string certificate = trustAnchor().certificate.pem();
    put("fuzz_keystore", "owners", std::string(1, 0) + "# who\nalice@example.org\n *@a.example \r\n?b*@b.example\n");
    put("fuzz_keystore", "owners-bom",
        std::string(1, 0) + "\xEF\xBB\xBF*@b\xC3\xBC"
                            "cher.example\n\n*@*\n");
    put("fuzz_keystore", "passphrase", '\1' + std::string("secret\r\n"));
    put("fuzz_keystore", "certificates", '\2' + certificate + "text\n" + certificate);
    put("fuzz_keystore", "key", '\3' + key.pkcs8Pem());
    put("fuzz_keystore", "key-encrypted", '\4' + key.encryptedPem("secret"));
    const std::string minimal = "[milter]\nsocket = \"unix:/run/m.sock\"\nauthserv_id = \"mx.a.example\"\n";
    put("fuzz_config", "minimal", minimal);
    put("fuzz_config", "more",
        minimal +
            "[limits]\nmessage_bytes = 100000\ntoo_large = \"reject\"\n[[direction]]\nlistener = \"OUT\"\n"
            "networks = [\"192.0.2.0/24\", \"2001:db8::/32\"]\ndirection = \"outgoing\"\n[store]\ndirectory = \"s\"\n"
            "[trust]\nanchors = [\"roots.pem\"]\nrevocation = \"available\"\n[[sender]]\nauthenticated = \"*\"\n"
            "from = [\"*@a.example\"]\n[outgoing]\nsubmit = \"smtp://127.0.0.1:9\"\n[[outgoing.rule]]\n"
            "name = \"must\"\nrecipient = \"*@b.example\"\nencrypt = \"must\"\ncipher = \"aes-256-gcm\"\n"
            "[incoming]\nrefuse = [\"fail\"]\n[log]\nlevel = \"debug\"\n");
    put("fuzz_config", "wrong", minimal + "timeout = -1\nunknown = [1, {a = 2}]\n\"\\u0000\" = 1\n");
    put("fuzz_address", "plain", "Alice@Example.ORG.");
    put("fuzz_address", "quoted",
        "\"a b\"@b\xC3\xBC"
        "cher.example");
    put("fuzz_address", "pattern", "*@*.example\nalice@xn--bcher-kva.example");
    put("fuzz_address", "literal", "a@[IPv6:2001:db8::1]");
}

void tlsSeeds() {
    const norvauthority::Identity curve =
        norvauthority::issue({.subject = {{"CN", "mail.example.org"}}, .key = trustKey()});
    const norvauthority::Identity rsa =
        norvauthority::issue({.subject = {{"CN", "mail.example.org"}}, .key = storedKey("bob")});
    const auto both = [](const std::string& name, const std::pair<std::string, std::string>& said) {
        put("fuzz_tls", name, said.first);
        put("fuzz_tls_client", name, '\0' + said.second);
        put("fuzz_tls_client", name + "-unread", '\xFF' + said.second);
    };
    both("tls13", handshake(TLS1_3_VERSION, curve, nullptr));
    both("tls12", handshake(TLS1_2_VERSION, curve, nullptr));
    // Without a key exchange that is signed: what follows is read with whatever random numbers.
    both("tls12-transport", handshake(TLS1_2_VERSION, rsa, "AES128-SHA:AES256-GCM-SHA384"));
    put("fuzz_tls", "http", "GET / HTTP/1.1\r\n\r\n");
    put("fuzz_tls_client", "smtp", std::string(1, '\4') + "220 mail.example.org ESMTP\r\n");
    put("fuzz_tls_client", "alert", '\0' + std::string("\x15\x03\x03\x00\x02\x02\x28", 7));
}

} // namespace fuzz
