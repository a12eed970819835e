#include "support/Pkcs12.h"
#include "support/Thrown.h"

#include <norvcrypto/Crypto.h>

#include <openssl/x509.h>

using namespace Norvane;
using namespace norvtest;
using norvauthority::Identity;
using norvauthority::issue;

namespace {

using Store = Norvane::Crypto::PKCS12::Store;

const Identity& authority() {
    static const Identity identity =
        issue({.subject = {{"CN", "Authority"}}, .key = norvauthority::Key::ec(), .ca = true});
    return identity;
}

const Identity& holder() {
    static const Identity identity =
        issue({.subject = {{"CN", "Holder"}}, .key = norvauthority::Key::ec(), .issuer = &authority(), .serial = "2a"});
    return identity;
}

class Pkcs12 : public x509testing::QuietQueue {
protected:
    static void SetUpTestSuite() { Crypto::initialize(); }
};

TEST_F(Pkcs12, ImportsAKeyAndItsCertificate) {
    const auto store = storeOf(pkcs12({.key = &holder(), .certificate = &holder()}));
    EXPECT_TRUE(store->privateKey().isNull());
    EXPECT_TRUE(store->certificate().isNull());

    store->read("secret");
    const auto certificate = owned(*store);
    ASSERT_FALSE(certificate.isNull());
    EXPECT_EQ(certificate->subject().asString(), "CN=Holder");
    EXPECT_EQ(X509_check_private_key(certificate, store->privateKey()), 1);
}

TEST_F(Pkcs12, WrongPasswordIsTold) {
    const auto store = storeOf(pkcs12({.key = &holder(), .certificate = &holder()}));
    const auto thrown = thrownBy([&] { store->read("Secret"); });
    expectFailure(thrown, "Crypto::PKCS12::read - Incorrect password", 4, "PKCS12", 56);
    EXPECT_EQ(detailOf(thrown), "");
}

} // namespace
