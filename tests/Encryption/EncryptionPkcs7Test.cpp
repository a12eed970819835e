// Each cipher in OpenSSL's PKCS#7 layer, which finds it again by its identifier when it decrypts.

#include "support/Ciphers.h"
#include "support/Thrown.h"

#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <memory>

using namespace ciphertest;
using namespace norvtest;

namespace {

struct Freeing {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(PKCS7* structure) const { PKCS7_free(structure); }
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using Bio = std::unique_ptr<BIO, Freeing>;
using Pkcs7 = std::unique_ptr<PKCS7, Freeing>;

const norvauthority::Identity& recipient() {
    static const auto identity =
        norvauthority::issue({.subject = {{"CN", "Recipient"}}, .key = norvauthority::Key::rsa(2048)});
    return identity;
}

std::string derOf(PKCS7* structure) {
    unsigned char* bytes = nullptr;
    const int length = i2d_PKCS7(structure, &bytes);
    std::string der(bytes, bytes + length);
    OPENSSL_free(bytes);
    return der;
}

Pkcs7 decoded(const std::string& der) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
    return Pkcs7(d2i_PKCS7(nullptr, &bytes, static_cast<long>(der.size())));
}

std::string contentOf(BIO* bio) {
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    return {bytes, static_cast<std::size_t>(length)};
}

std::string decryptedBy(const norvauthority::Key& key, const std::string& der) {
    const Pkcs7 structure = decoded(der);
    const Bio out(BIO_new(BIO_s_mem()));
    if (!structure ||
        PKCS7_decrypt(structure.get(), key.get(), recipient().certificate.x509().get(), out.get(), 0) != 1) {
        return "<failed>";
    }
    return contentOf(out.get());
}

TEST_P(EachCipher, EncryptsAStructureThatDecryptsAgain) {
    for (const std::size_t length : {0U, 1U, 15U, 16U, 17U, 4095U, 4096U, 4097U}) {
        const std::string body = sampleBytes(length);
        const Bio in(BIO_new_mem_buf(body.data(), static_cast<int>(length)));
        const std::unique_ptr<STACK_OF(X509), Freeing> recipients(sk_X509_new_null());
        const auto certificate = recipient().certificate.x509();
        sk_X509_push(recipients.get(), certificate.get());
        const Pkcs7 made(PKCS7_encrypt(recipients.get(), in.get(), Norvane::Crypto::initializeCipher(GetParam().cipher),
                                       PKCS7_BINARY));
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(OBJ_obj2nid(made->d.enveloped->enc_data->algorithm->algorithm), GetParam().number);
        EXPECT_EQ(decryptedBy(recipient().key, derOf(made.get())), body) << length;
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TEST_P(EachCipher, EncryptsAStructureInOddPieces) {
    const std::string body = sampleBytes(5003);
    const Pkcs7 structure(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(structure.get(), NID_pkcs7_enveloped), 1);
    ASSERT_EQ(PKCS7_set_cipher(structure.get(), Norvane::Crypto::initializeCipher(GetParam().cipher)), 1);
    ASSERT_NE(PKCS7_add_recipient(structure.get(), recipient().certificate.x509().get()), nullptr);
    const Bio chain(PKCS7_dataInit(structure.get(), nullptr));
    ASSERT_NE(chain, nullptr);
    std::size_t at = 0;
    for (std::size_t piece = 1; at < body.size(); piece = piece * 2 + 1) {
        const int count = static_cast<int>(std::min(piece, body.size() - at));
        ASSERT_EQ(BIO_write(chain.get(), body.data() + at, count), count);
        at += static_cast<std::size_t>(count);
    }
    ASSERT_EQ(BIO_flush(chain.get()), 1);
    ASSERT_EQ(PKCS7_dataFinal(structure.get(), chain.get()), 1);
    const std::string der = derOf(structure.get());
    EXPECT_EQ(decryptedBy(recipient().key, der), body);

    // And read back in odd pieces.
    const Pkcs7 again = decoded(der);
    const Bio source(
        PKCS7_dataDecode(again.get(), recipient().key.get(), nullptr, recipient().certificate.x509().get()));
    ASSERT_NE(source, nullptr);
    std::string clear;
    char piece[13];
    for (int count = BIO_read(source.get(), piece, 13); count > 0; count = BIO_read(source.get(), piece, 13)) {
        clear.append(piece, static_cast<std::size_t>(count));
    }
    EXPECT_EQ(clear, body);
}

INSTANTIATE_TEST_SUITE_P(Ciphers, EachCipher, testing::ValuesIn(allCiphers()), nameOf);

} // namespace
