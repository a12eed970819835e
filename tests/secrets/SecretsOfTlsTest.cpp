// What is left of a TLS connection: its keys, and what came and went over it.

#include "SecretsInMemory.h"

#include "support/Tls.h"

#include <norvcmsg/File.h>

#include <openssl/core_names.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <cstdlib>
#include <future>
#include <sstream>

namespace {

using namespace secrettesting;
using namespace tlstesting;

constexpr unsigned int aMinute = 60000;

// In the process that is searched

void talks(const std::string& folder, int version) {
    std::string address;
    Norvane::FileMediaIn(Norvane::File::Path(folder + "/address")).read(address);
    RefContext mine = only(clientContext(), version);
    SSLSocket socket(mine, SocketAddress(address));
    socket.timeLimit(aMinute);
    // The program's own pieces, which it wipes.
    Norvane::Buffer piece(16384, 0);
    piece.protect();
    for (std::size_t octets = 0; octets < 200000;) {
        const int count = socket.receive(piece.data(), piece.size());
        if (count <= 0 || socket.send(piece.data(), static_cast<unsigned int>(count)) != count) {
            std::abort();
        }
        octets += static_cast<std::size_t>(count);
    }
}

const AddedWork s_works[] = {
    {"tls12", [](const std::string& folder) { talks(folder, TLS1_2_VERSION); }},
    {"tls13", [](const std::string& folder) { talks(folder, TLS1_3_VERSION); }},
};

// In the one that searches

/// The lines that OpenSSL tells the secrets of connections in.
std::string s_told;

std::string octetsOf(const std::string& digits) {
    std::string octets;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
        octets += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return octets;
}

std::string derived(const char* function, std::vector<OSSL_PARAM> parameters, std::size_t length) {
    parameters.push_back(OSSL_PARAM_construct_end());
    EVP_KDF* const algorithm = EVP_KDF_fetch(nullptr, function, nullptr);
    EVP_KDF_CTX* const context = EVP_KDF_CTX_new(algorithm);
    std::string out(length, '\0');
    EXPECT_EQ(EVP_KDF_derive(context, reinterpret_cast<unsigned char*>(out.data()), out.size(), parameters.data()), 1);
    EVP_KDF_CTX_free(context);
    EVP_KDF_free(algorithm);
    return out;
}
OSSL_PARAM text(const char* name, std::string& value) {
    return OSSL_PARAM_construct_utf8_string(name, value.data(), 0);
}
OSSL_PARAM octets(const char* name, std::string& value) {
    return OSSL_PARAM_construct_octet_string(name, value.data(), value.size());
}

/// The key of the records under a secret (RFC 8446, 7.3), of AES-256.
std::string recordKey(std::string secret) {
    std::string digest = "SHA384";
    std::string label("\0\x20\x09tls13 key\0", 13);
    int mode = EVP_KDF_HKDF_MODE_EXPAND_ONLY;
    return derived("HKDF",
                   {OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode), text(OSSL_KDF_PARAM_DIGEST, digest),
                    octets(OSSL_KDF_PARAM_KEY, secret), octets(OSSL_KDF_PARAM_INFO, label)},
                   32);
}
/// The two keys of the records (RFC 5246, 6.3), of AES-256 in GCM mode.
std::string recordKeys(std::string master, const std::string& clientRandom, const std::string& serverRandom) {
    std::string digest = "SHA384";
    std::string seed = "key expansion" + serverRandom + clientRandom;
    return derived(
        "TLS1-PRF",
        {text(OSSL_KDF_PARAM_DIGEST, digest), octets(OSSL_KDF_PARAM_SECRET, master), octets(OSSL_KDF_PARAM_SEED, seed)},
        64);
}

void learn(Secrets& secrets, const std::string& serverRandom) {
    std::istringstream lines(s_told);
    std::size_t count = 0;
    for (std::string label, random, secret; lines >> label >> random >> secret; ++count) {
        secret = octetsOf(secret);
        secrets[label] = secret;
        if (label == "CLIENT_RANDOM") {
            const std::string keys = recordKeys(secret, octetsOf(random), serverRandom);
            secrets["the client's key"] = keys.substr(0, 32);
            secrets["the server's key"] = keys.substr(32);
        } else {
            secrets["key of " + label] = recordKey(secret);
        }
    }
    EXPECT_NE(count, 0U);
}

class SecretsOfTls : public SecretsInMemory {
protected:
    /// Sends the text and takes it back.
    static Found left(const std::string& work, const std::string& cipher) {
        s_told.clear();
        const RefContext mine = serverContext();
        SSL_CTX_set_keylog_callback(mine, [](const SSL*, const char* line) { s_told += std::string(line) + '\n'; });
        SSLSocket listening = listener(mine);
        listening.timeLimit(aMinute);
        write("address", listening.localAddress().asString());
        const std::string sent = text();
        std::string serverRandom(32, '\0');
        auto talk = std::async(std::launch::async, [&] {
            SSLSocket peer(listening.accept());
            peer.timeLimit(aMinute);
            EXPECT_EQ(peer.session().cipher, cipher);
            SSL_get_server_random(peer, reinterpret_cast<unsigned char*>(serverRandom.data()), serverRandom.size());
            std::string back(16384, '\0');
            for (std::size_t at = 0; at < sent.size(); at += 16384) {
                const auto count = static_cast<unsigned int>(std::min<std::size_t>(16384, sent.size() - at));
                if (peer.send(reinterpret_cast<const unsigned char*>(sent.data()) + at, count) !=
                    static_cast<int>(count)) {
                    break;
                }
                for (unsigned int got = 0; got < count;) {
                    const int some = peer.receive(reinterpret_cast<unsigned char*>(back.data()), 16384);
                    if (some <= 0) {
                        break;
                    }
                    got += static_cast<unsigned int>(some);
                }
            }
        });
        return leftByUs(work, [&](Secrets& secrets) {
            talk.get();
            learn(secrets, serverRandom);
        });
    }
};

/// OpenSSL 3.0 does not wipe its own SSL, which has the secrets that the keys of TLS 1.3 are made from.
TEST_F(SecretsOfTls, OpensslsOwnSecretsAloneAreLeftOfTls13) {
    Found found = left("tls13", "TLS_AES_256_GCM_SHA384");
    std::erase_if(found, [](const std::string& one) {
        return one == "CLIENT_TRAFFIC_SECRET_0 in memory" || one == "SERVER_TRAFFIC_SECRET_0 in memory" ||
               one == "EXPORTER_SECRET in memory";
    });
    EXPECT_EQ(found, Found());
}

TEST_F(SecretsOfTls, NothingIsLeftOfTls12) {
    EXPECT_EQ(left("tls12", "ECDHE-ECDSA-AES256-GCM-SHA384"), Found());
}

} // namespace
