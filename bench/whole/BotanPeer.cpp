// Botan 2. It has no CMS: digests, ciphers, and bare RSA over a digest.
#include "Contestants.h"

#include <botan/auto_rng.h>
#include <botan/cipher_mode.h>
#include <botan/data_src.h>
#include <botan/hash.h>
#include <botan/pkcs8.h>
#include <botan/pubkey.h>

#include <memory>

namespace bench {

namespace {

constexpr const char* who = "Botan";

const Bytes s_key(32, 1);
const Bytes s_vector(16, 2);

Run crypting(std::size_t size, Botan::Cipher_Dir direction) {
    auto bytes = std::make_shared<Bytes>(body(size).begin(), body(size).begin() + static_cast<std::ptrdiff_t>(size));
    if (direction == Botan::DECRYPTION) {
        const auto mode = Botan::Cipher_Mode::create_or_throw("AES-256/CBC/PKCS7", Botan::ENCRYPTION);
        mode->set_key(s_key);
        mode->start(s_vector);
        Botan::secure_vector<std::uint8_t> secret(bytes->begin(), bytes->end() - 1);
        mode->finish(secret);
        bytes->assign(secret.begin(), secret.end());
    }
    return [bytes, direction] {
        const auto mode = Botan::Cipher_Mode::create_or_throw("AES-256/CBC/PKCS7", direction);
        mode->set_key(s_key);
        mode->start(s_vector);
        Botan::secure_vector<std::uint8_t> buffer;
        // It works in place, and wants the last block with the end.
        for (std::size_t at = 0; at < bytes->size(); at += piece) {
            const std::size_t length = std::min(piece, bytes->size() - at);
            buffer.assign(bytes->data() + at, bytes->data() + at + length);
            if (at + length == bytes->size()) {
                mode->finish(buffer);
            } else {
                mode->update(buffer);
            }
            keep(*buffer.data());
        }
    };
}

} // namespace

void addBotan(Contest& contest, const Material& material) {
    contest.add("digest", who, [](std::size_t size) -> Run {
        return [size] {
            const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
            inPieces(body(size), size,
                     [&](const unsigned char* data, unsigned int length) { hash->update(data, length); });
            keep(hash->final());
        };
    });
    contest.add("encrypt", who, [](std::size_t size) { return crypting(size, Botan::ENCRYPTION); });
    contest.add("decrypt", who, [](std::size_t size) { return crypting(size, Botan::DECRYPTION); });

    const auto random = std::make_shared<Botan::AutoSeeded_RNG>();
    Botan::DataSource_Memory source(material.keyDer.data(), material.keyDer.size());
    const std::shared_ptr<Botan::Private_Key> key = Botan::PKCS8::load_key(source);
    contest.add("sign", "Botan (no structure)", [random, key](std::size_t size) -> Run {
        return [random, key, size] {
            Botan::PK_Signer signer(*key, *random, "EMSA3(SHA-256)");
            inPieces(body(size), size,
                     [&](const unsigned char* data, unsigned int length) { signer.update(data, length); });
            keep(signer.signature(*random));
        };
    });
    contest.add("verify", "Botan (no structure)", [random, key](std::size_t size) -> Run {
        Botan::PK_Signer signer(*key, *random, "EMSA3(SHA-256)");
        const auto signature = std::make_shared<Bytes>(signer.sign_message(body(size).data(), size, *random));
        return [key, signature, size] {
            Botan::PK_Verifier verifier(*key, "EMSA3(SHA-256)");
            inPieces(body(size), size,
                     [&](const unsigned char* data, unsigned int length) { verifier.update(data, length); });
            require(verifier.check_signature(signature->data(), signature->size()), "not verified");
        };
    });
}

} // namespace bench
