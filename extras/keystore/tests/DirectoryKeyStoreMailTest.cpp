// End to end: what a mail layer does with a key store that asks the directory, and what another program says to it.

#include "Store.h"
#include "support/Judge.h"

#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

#include <gmock/gmock.h>

using namespace keystoretesting;

namespace {

class DirectoryKeyStoreMailTest : public DirectoryKeyStoreTest {
protected:
    static void SetUpTestSuite() { initialize(); }

    /// What `openssl cms -verify` says to a signature over a body.
    [[nodiscard]] norvtest::Outcome verdict(const std::string& signature, const std::string& body,
                                            const norvauthority::Identity& root) const {
        return norvtest::run("openssl cms -verify -binary -inform DER -in " + m_folder.write("body.p7s", signature) +
                             " -content " + m_folder.write("body", body) + " -CAfile " +
                             m_folder.write("root.pem", root.certificate.pem()) + " -out /dev/null -signer " +
                             m_folder.path("signer.pem"));
    }

    norvtest::TemporaryFolder m_folder;
    const std::string m_body = "Content-Type: text/plain\r\n\r\nHello\r\n";
};

TEST_F(DirectoryKeyStoreMailTest, SignsWithTheSendersKeyAndChainAndOpenSSLVerifiesIt) {
    const auto root = norvauthority::issue({.subject = {{"CN", "Root"}}, .key = norvauthority::Key::ec(), .ca = true});
    const auto between = norvauthority::issue(
        {.subject = {{"CN", "Between"}}, .key = norvauthority::Key::ec(), .issuer = &root, .serial = "2", .ca = true});
    m_store.add("anna", "anna@example.com\n",
                identity("anna", {.key = norvauthority::Key::ec(), .issuer = &between, .keyUsage = 0x80}));
    m_store.file("anna/chain.pem", between.certificate.pem());
    m_store.file("anna/key.pem", "");
    m_store.add("others", "*\n");

    RefKeyStore keys(true);
    const auto store = open();
    keys->add(store.plugin());
    EXPECT_EQ(who(keys->findSigningKey(address("anna@example.com"))), "others"); // her key is empty
    const auto annasKey = norvauthority::Key::ec();
    const auto anna = identity("anna", {.key = annasKey, .issuer = &between, .keyUsage = 0x80});
    m_store.add("anna", "anna@example.com\n", anna);
    store->reload();

    Norvane::MemoryMediaOut signature;
    CMS::SignerMediaOut signer(Hasher::SHA256, keys->findSigningKey(address("anna@example.com")));
    signer.attach(signature);
    signer.write(x509testing::buffer(m_body));
    signer.end();
    const auto outcome = verdict(x509testing::text(signature.content()), m_body, root);
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_EQ(m_folder.read("signer.pem"), anna.certificate.pem());
    EXPECT_NE(verdict(x509testing::text(signature.content()), m_body + "forged", root).code, 0);
}

TEST_F(DirectoryKeyStoreMailTest, DecryptsWhatOpenSSLEncryptedToTheCertificateThatTheStoreGives) {
    const auto old = identity("old", {.notAfter = norvauthority::Time::fromNow(-60), .keyUsage = 0x20});
    m_store.add("anna-2026", "anna@example.com\n", identity("anna", {.keyUsage = 0x20}));
    m_store.add("anna-2025", "", old);
    m_store.add("partner", "*\n", identity("partner"), false);
    const auto store = open();
    RefKeyStore keys(true);
    keys->add(store.plugin());

    Norvane::MemoryMediaOut annasPem;
    keys->findEncryptionCertificate(address("anna@example.com"))->writePEM(annasPem);
    const auto message = [&](const std::string& certificate) {
        const auto outcome =
            norvtest::run("openssl cms -encrypt -binary -aes256 -outform DER -in " + m_folder.write("body", m_body) +
                          " -out " + m_folder.path("body.p7m") + " " + m_folder.write("recipient.pem", certificate));
        EXPECT_EQ(outcome.code, 0) << outcome.output;
        return m_folder.read("body.p7m");
    };
    const auto decrypted = [&](const std::string& certificate) -> std::string {
        Norvane::MemoryMediaIn in(x509testing::buffer(message(certificate)));
        Norvane::MemoryMediaOut body;
        CMS::DecrypterMediaIn decrypter(in, keys);
        decrypter.write(body);
        return decrypter.decryptionSucceeded() ? x509testing::text(body.content()) : "nobody's";
    };
    EXPECT_EQ(decrypted(x509testing::text(annasPem.content())), m_body);
    EXPECT_EQ(decrypted(old.certificate.pem()), m_body);
    const x509testing::Log log;
    EXPECT_EQ(decrypted(identity("stranger").certificate.pem()), "nobody's");
}

TEST_F(DirectoryKeyStoreMailTest, TheExampleSignsForASenderAndRefusesWhatItCannotSign) {
    const auto example = [this](const std::string& sender) {
        return norvtest::run("( " SIGN_FOR_SENDER " " + m_store.path() + " '" + sender + "' <" +
                             m_folder.write("body", m_body) + " >" + m_folder.path("out") + " )");
    };
    const auto anna = identity("anna");
    m_store.add("anna", "anna@example.com\n", anna);
    m_store.add("old", "old@example.com\n", identity("old", {.notAfter = norvauthority::Time::fromNow(-60)}));
    m_store.folder("broken");
    auto outcome = example("anna@example.com");
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_EQ(outcome.output, "broken/cert.pem: is missing\n");
    outcome = verdict(m_folder.read("out"), m_body, anna);
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    m_store.remove("broken");
    // A body that cannot be read is not the empty one, and a signature that cannot be written is none.
    const std::string forAnna = "( " SIGN_FOR_SENDER " " + m_store.path() + " anna@example.com ";
    outcome = norvtest::run(forAnna + "<" + m_store.path() + " >" + m_folder.path("none") + " )");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, "signStandardInput (code 4): standard input cannot be read\n");
    EXPECT_EQ(m_folder.read("none"), "");
    outcome = norvtest::run(forAnna + "<" + m_folder.path("body") + " >/dev/full )");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, "signStandardInput (code 4): standard output cannot be written\n");
    EXPECT_EQ(example("bert@example.com").output, "nobody signs for bert@example.com\n");
    EXPECT_EQ(example("no address").output, "nobody signs for no address\n");
    EXPECT_THAT(example("old@example.com").output, // after what the library logs about the period
                testing::EndsWith("\nthe certificate of old@example.com is expired or not yet valid\n"));
    m_store.folder(".", 0777);
    outcome = example("anna@example.com");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output.rfind("DirectoryKeyStore::reload (code 4, DirectoryKeyStore:", 0), 0U) << outcome.output;
}

} // namespace
