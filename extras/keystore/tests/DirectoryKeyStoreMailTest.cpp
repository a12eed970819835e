// End to end: what a mail layer does with a key store that asks the directory, and what another program says to it.

#include "Store.h"
#include "support/Judge.h"

#include <norvcrypto/CMSSignerMedia.h>
#include <norvcrypto/Crypto.h>

using namespace keystoretesting;

namespace {

class DirectoryKeyStoreMailTest : public DirectoryKeyStoreTest {
protected:
    static void SetUpTestSuite() { initialize(); }

    norvtest::TemporaryFolder m_folder;
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
    const std::string body = "Content-Type: text/plain\r\n\r\nHello\r\n";
    CMS::SignerMediaOut signer(Hasher::SHA256, keys->findSigningKey(address("anna@example.com")));
    signer.attach(signature);
    signer.write(x509testing::buffer(body));
    signer.end();
    const auto file = m_folder.write("body.p7s", x509testing::text(signature.content()));
    const auto verify = "openssl cms -verify -binary -inform DER -in " + file + " -content " +
                        m_folder.write("body", body) + " -CAfile " +
                        m_folder.write("root.pem", root.certificate.pem()) + " -out /dev/null -signer " +
                        m_folder.path("signer.pem");
    const auto outcome = norvtest::run(verify);
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_EQ(m_folder.read("signer.pem"), anna.certificate.pem());
    m_folder.write("body", body + "forged");
    EXPECT_NE(norvtest::run(verify).code, 0);
}

} // namespace
