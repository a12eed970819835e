// Importing keys: what is found in a structure, which failures are told, and what the handles hold afterwards.
#include "support/Pkcs12.h"
#include "support/Interpose.h"
#include "support/Started.h"
#include "support/Streams.h"
#include "support/Thrown.h"

#include <norvcrypto/BIOMediaImpl.h>

#include <openssl/pem.h>
#include <openssl/x509.h>

using namespace Norvane;
using namespace norvtest;
using norvauthority::Bytes;
using norvauthority::Identity;
using norvauthority::issue;
using norvauthority::Key;
using x509testing::buffer;

namespace {

using Store = Norvane::Crypto::PKCS12::Store;

int s_parsed = 0;
bool s_parsingFails = false;

} // namespace

/// The first thing that is asked of a structure whose password is right.
extern "C" STACK_OF(PKCS7) * PKCS12_unpack_authsafes(const PKCS12_st* structure) {
    ++s_parsed;
    if (s_parsingFails) {
        return nullptr;
    }
    return next<&PKCS12_unpack_authsafes>("PKCS12_unpack_authsafes")(structure);
}

namespace {

const Identity& authority() {
    static const Identity identity = issue({.subject = {{"CN", "Authority"}}, .key = Key::ec(), .ca = true});
    return identity;
}

const Identity& holder() {
    static const Identity identity =
        issue({.subject = {{"CN", "Holder"}}, .key = Key::ec(), .issuer = &authority(), .serial = "2a"});
    return identity;
}

Bytes keyAndCertificate(const std::string& password = "secret") {
    return pkcs12({.key = &holder(), .certificate = &holder(), .password = password});
}

class Pkcs12 : public x509testing::QuietQueue {
protected:
    static void expectEmpty(const Store& store) {
        EXPECT_TRUE(store.privateKey().isNull());
        EXPECT_TRUE(store.certificate().isNull());
    }
    /// The store opens under the password and holds the holder's key and certificate.
    static void expectOpens(Store& store, const std::string& password) {
        store.read(password);
        const auto certificate = owned(store);
        ASSERT_FALSE(certificate.isNull());
        EXPECT_EQ(certificate->subject().asString(), "CN=Holder");
        EXPECT_EQ(EVP_PKEY_eq(store.privateKey(), holder().key.get()), 1);
    }
    static Exception decodingFailure(bio_st* in) {
        const auto thrown = thrownBy([&] { const Store store(in); });
        expectFailure(thrown, "Crypto::PKCS12::Store", 4, "PKCS12", 23);
        EXPECT_NE(detailOf(thrown).find("0x"), std::string::npos) << "no reason: " << detailOf(thrown);
        EXPECT_TRUE(errorQueueIsEmpty());
        return thrown;
    }
    static Exception decodingFailure(const Bytes& der) {
        Crypto::MemoryBIO source(buffer(der));
        return decodingFailure(source);
    }
    static Exception passwordFailure(Store& store, const std::string& password) {
        const auto thrown = thrownBy([&] { store.read(password); });
        expectFailure(thrown, "Crypto::PKCS12::read - Incorrect password", 4, "PKCS12", 56);
        EXPECT_TRUE(errorQueueIsEmpty());
        return thrown;
    }
    static Exception parsingFailure(Store& store, const std::string& password) {
        const auto thrown = thrownBy([&] { store.read(password); });
        expectFailure(thrown, "Crypto::PKCS12::read - parsing error.", 4, "PKCS12", 67);
        EXPECT_TRUE(errorQueueIsEmpty());
        return thrown;
    }
};

TEST_F(Pkcs12, HandlesAreEmptyUntilRead) {
    const auto store = storeOf(keyAndCertificate());
    expectEmpty(*store);
    expectOpens(*store, "secret");
}

TEST_F(Pkcs12, KeysOfEveryKindAreImported) {
    for (const Key& key : {Key::rsa(), Key::dsa(), Key::ec("P-384"), Key::ed25519()}) {
        const Identity identity = issue({.subject = {{"CN", "Any"}}, .key = key, .digest = "SHA256"});
        const auto store = storeOf(pkcs12({.key = &identity, .certificate = &identity}));
        store->read("secret");
        const auto certificate = owned(*store);
        ASSERT_FALSE(certificate.isNull());
        EXPECT_EQ(EVP_PKEY_eq(store->privateKey(), key.get()), 1);
        EXPECT_EQ(X509_check_private_key(certificate, store->privateKey()), 1);
    }
}

TEST_F(Pkcs12, WithoutAnyPassword) {
    // 0 is PBES2, whose PBKDF2 makes the same of no password and of the empty one; PKCS#12's own schemes do not.
    for (const int cipher : {NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_pbe_WithSHA1And40BitRC2_CBC, 0, -1}) {
        const auto store = storeOf(pkcs12({.key = &holder(),
                                           .certificate = &holder(),
                                           .keyCipher = cipher,
                                           .certificateCipher = cipher,
                                           .allUnderNullPassword = true}));
        const auto thrown = thrownBy([&] { store->read(""); });
        expectFailure(thrown, "Crypto::PKCS12::read - Incorrect password", 4, "PKCS12", 56);
        store->readWithoutPassword();
        const auto certificate = owned(*store);
        ASSERT_FALSE(certificate.isNull());
        EXPECT_EQ(certificate->subject().asString(), "CN=Holder");
        EXPECT_EQ(EVP_PKEY_eq(store->privateKey(), holder().key.get()), 1);
        EXPECT_TRUE(errorQueueIsEmpty());
    }
}

TEST_F(Pkcs12, PasswordsAreNotNone) {
    for (const char* password : {"", "secret"}) {
        const auto store = storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .password = password}));
        const auto thrown = thrownBy([&] { store->readWithoutPassword(); });
        expectFailure(thrown, "Crypto::PKCS12::read - Incorrect password", 4, "PKCS12", 56);
        expectEmpty(*store);
        expectOpens(*store, password);
    }
    const auto none = thrownBy([] { Store().readWithoutPassword(); });
    expectFailure(none, "Crypto::PKCS12::read", 4, "PKCS12");
}

TEST_F(Pkcs12, OldAndNewCiphersAndNone) {
    for (const int cipher : {NID_pbe_WithSHA1And40BitRC2_CBC, NID_pbe_WithSHA1And3_Key_TripleDES_CBC, NID_aes_128_cbc,
                             NID_aes_256_cbc, -1}) {
        const auto store = storeOf(
            pkcs12({.key = &holder(), .certificate = &holder(), .keyCipher = cipher, .certificateCipher = cipher}));
        expectOpens(*store, "secret");
    }
}

TEST_F(Pkcs12, CertificatesOfTheChainAreIgnored) {
    const Identity other = issue({.subject = {{"CN", "Other"}}, .key = x509testing::anyKey()});
    const auto store = storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .chain = {&authority(), &other}}));
    expectOpens(*store, "secret");
}

TEST_F(Pkcs12, KeyAloneGivesNoCertificate) {
    const auto store = storeOf(pkcs12({.key = &holder()}));
    store->read("secret");
    EXPECT_EQ(EVP_PKEY_eq(store->privateKey(), holder().key.get()), 1);
    EXPECT_TRUE(store->certificate().isNull());
}

TEST_F(Pkcs12, CertificateAloneBelongsToNoKeyAndIsNotGiven) {
    const auto store = storeOf(pkcs12({.certificate = &holder(), .chain = {&authority()}}));
    store->read("secret");
    expectEmpty(*store);
}

TEST_F(Pkcs12, StrangersCertificateIsNotGivenWithTheKey) {
    const auto store = storeOf(pkcs12({.key = &holder(), .chain = {&authority()}}));
    store->read("secret");
    EXPECT_FALSE(store->privateKey().isNull());
    EXPECT_TRUE(store->certificate().isNull());
}

TEST_F(Pkcs12, KeyOutlivesTheStore) {
    Crypto::RefKey key;
    {
        const auto store = storeOf(pkcs12({.key = &holder()}));
        store->read("secret");
        key = store->privateKey();
    }
    EXPECT_EQ(EVP_PKEY_eq(key, holder().key.get()), 1);
}

TEST_F(Pkcs12, CertificateIsDeliberatelyNotOwned) {
    X509* x509 = nullptr;
    {
        const auto store = storeOf(keyAndCertificate());
        store->read("secret");
        x509 = store->certificate();
    }
    // No handle is left, and the certificate is still there: it is this test's to free.
    const norvauthority::X509Ptr left(x509);
    EXPECT_EQ(X509_check_private_key(x509, holder().key.get()), 1);
}

TEST_F(Pkcs12, CertificateMadeOverItByTheCallerFreesIt) {
    const auto store = storeOf(keyAndCertificate());
    store->read("secret");
    X509* const x509 = store->certificate();
    const auto certificate = Crypto::NVX509::CertificateFactory()(store->certificate(), true); // the leak check sees it
    EXPECT_EQ(static_cast<X509*>(certificate), x509);
}

TEST_F(Pkcs12, WrongPasswordIsToldBeforeAnyParsing) {
    const auto store = storeOf(keyAndCertificate());
    const int before = s_parsed;
    for (const char* wrong : {"Secret", "secret ", "secre", "", "\xff"}) {
        EXPECT_EQ(detailOf(passwordFailure(*store, wrong)), "") << wrong;
    }
    EXPECT_EQ(s_parsed, before);
    expectEmpty(*store);
    expectOpens(*store, "secret");
    EXPECT_EQ(s_parsed, before + 1);
}

TEST_F(Pkcs12, StructureWithoutMacFailsAsAWrongPassword) {
    const auto store = storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .mac = false}));
    EXPECT_NE(detailOf(passwordFailure(*store, "secret")).find("mac absent"), std::string::npos);
}

TEST_F(Pkcs12, ContentsUnderAnotherPasswordThanTheMacDoNotParse) {
    const auto store =
        storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .password = "inner", .macPassword = "outer"}));
    EXPECT_NE(detailOf(parsingFailure(*store, "outer")), "");
    passwordFailure(*store, "inner");
    expectEmpty(*store);
}

TEST_F(Pkcs12, FailedReadLeavesTheHandles) {
    const auto store = storeOf(keyAndCertificate());
    store->read("secret");
    const auto certificate = owned(*store);
    const auto* const keyBody = store->privateKey().operator->();
    const auto* const certificateBody = store->certificate().operator->();
    const auto expectUnchanged = [&] {
        EXPECT_EQ(store->privateKey().operator->(), keyBody);
        EXPECT_EQ(store->certificate().operator->(), certificateBody);
        EXPECT_EQ(X509_check_private_key(store->certificate(), store->privateKey()), 1);
    };
    passwordFailure(*store, "wrong");
    expectUnchanged();
    const During failing(s_parsingFails, true);
    parsingFailure(*store, "secret");
    expectUnchanged();
}

TEST_F(Pkcs12, ReadingTwiceGivesNewHandles) {
    const auto store = storeOf(keyAndCertificate());
    store->read("secret");
    const auto firstKey = store->privateKey();
    const auto first = owned(*store);
    store->read("secret");
    const auto second = owned(*store);
    EXPECT_NE(static_cast<X509*>(first), static_cast<X509*>(second));
    EXPECT_NE(static_cast<EVP_PKEY*>(firstKey), static_cast<EVP_PKEY*>(store->privateKey()));
    EXPECT_EQ(X509_check_private_key(first, store->privateKey()), 1);
    EXPECT_EQ(X509_check_private_key(second, firstKey), 1);
}

TEST_F(Pkcs12, StoreWithoutStructureHoldsNothingAndRefusesToRead) {
    Store store;
    expectEmpty(store);
    const auto thrown = thrownBy([&] { store.read("secret"); });
    expectFailure(thrown, "Crypto::PKCS12::read", 4, "PKCS12");
    EXPECT_GT(thrown.lineNumber(), 0U);
    EXPECT_EQ(detailOf(thrown), "The store holds no PKCS#12 structure");
    expectEmpty(store);
}

// Passwords

TEST_F(Pkcs12, PasswordsBeyondAscii) {
    for (const char* password : {"p\xc3\xa4ssw\xc3\xb6rd", "\xe2\x82\xac 100", "\xf0\x9f\x94\x91", "\xe4\xf6\xfc"}) {
        const auto store = storeOf(keyAndCertificate(password));
        expectOpens(*store, password);
        passwordFailure(*store, std::string(password) + "x");
    }
}

TEST_F(Pkcs12, LongPassword) {
    const std::string password(5000, 'x');
    const auto store = storeOf(keyAndCertificate(password));
    expectOpens(*store, password);
    passwordFailure(*store, password.substr(1));
}

TEST_F(Pkcs12, EmptyPasswordOpensWhatWasMadeUnderIt) {
    const auto store = storeOf(keyAndCertificate(""));
    expectOpens(*store, "");
    passwordFailure(*store, "x");
}

TEST_F(Pkcs12, StructureMadeWithoutAnyPasswordIsDeliberatelyRefused) {
    const auto store =
        storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .password = "", .macUnderNullPassword = true}));
    EXPECT_EQ(detailOf(passwordFailure(*store, "")), "");
}

TEST_F(Pkcs12, PasswordIsCheckedBeyondAnEmbeddedNul) {
    const auto store = storeOf(keyAndCertificate());
    passwordFailure(*store, std::string("secret\0", 7));
    passwordFailure(*store, std::string("secret\0more", 11));
    passwordFailure(*store, std::string("\0secret", 7));
}

TEST_F(Pkcs12, PasswordWithEmbeddedNulOpensNothing) {
    const std::string password("sec\0ret", 7);
    const auto store =
        storeOf(pkcs12({.key = &holder(), .certificate = &holder(), .password = "sec", .macPassword = password}));
    EXPECT_NE(detailOf(parsingFailure(*store, password)).find("mac verify failure"), std::string::npos);
    expectEmpty(*store);
}

// Sources

TEST_F(Pkcs12, OtherBytesAreNotDecoded) {
    decodingFailure(Bytes{});
    decodingFailure(norvauthority::bytes("-----BEGIN PKCS12-----"));
    decodingFailure(norvauthority::bytes("0"));
    decodingFailure(holder().certificate.der);
    decodingFailure(norvauthority::bytes(holder().certificate.pem()));
    decodingFailure(holder().key.pkcs8());
    decodingFailure(Bytes{0x30, 0x00});
    decodingFailure(Bytes{0x30, 0x03, 0x02, 0x01, 0x03});
}

TEST_F(Pkcs12, NullBioFails) {
    decodingFailure(static_cast<bio_st*>(nullptr));
}

TEST_F(Pkcs12, FileWithAnEmptyPathFails) {
    Crypto::FileBIO none(File::Path(), "rb");
    decodingFailure(none);
}

TEST_F(Pkcs12, BioThatFailsIsTold) {
    Crypto::FileBIO folder(File::Path("/"), "rb"); // opens, and cannot be read
    EXPECT_NE(detailOf(decodingFailure(folder)).find("0x"), std::string::npos);
}

TEST_F(Pkcs12, BioForWritingFails) {
    Crypto::MemoryBIO empty;
    decodingFailure(empty);
    MemoryMediaOut target;
    Crypto::BIOMediaOut sink(target);
    decodingFailure(sink);
}

TEST_F(Pkcs12, FileIsRead) {
    const x509testing::TemporaryFolder folder;
    const Bytes der = keyAndCertificate();
    Crypto::FileBIO file(File::Path(folder.write("a.p12", std::string(der.begin(), der.end()))), "rb");
    Store store(file);
    expectOpens(store, "secret");
}

TEST_F(Pkcs12, StreamIsReadInPieces) {
    const Bytes der = keyAndCertificate();
    PieceMediaIn source(std::string(der.begin(), der.end()), 3);
    Crypto::BIOMediaIn adapter(source);
    Store store(adapter);
    expectOpens(store, "secret");
}

TEST_F(Pkcs12, StreamThatThrowsKeepsItsException) {
    const Bytes der = keyAndCertificate();
    PieceMediaIn source(std::string(der.begin(), der.end()), 10, 100);
    Crypto::BIOMediaIn adapter(source);
    decodingFailure(adapter);
    thrownBy<StreamFailure>([&] { adapter.rethrowStreamException(); });
}

TEST_F(Pkcs12, BytesBehindTheStructureStayInTheBio) {
    Bytes der = keyAndCertificate();
    norvauthority::der::append(der, norvauthority::bytes("behind"));
    Crypto::MemoryBIO source(buffer(der));
    Store store(source);
    std::string rest(10, ' ');
    ASSERT_EQ(BIO_read(source, rest.data(), 10), 6);
    EXPECT_EQ(rest.substr(0, 6), "behind");
    expectOpens(store, "secret");
}

TEST_F(Pkcs12, TwoStructuresAreReadOneAfterTheOther) {
    Bytes der = keyAndCertificate("one");
    norvauthority::der::append(der, keyAndCertificate("two"));
    Crypto::MemoryBIO source(buffer(der));
    Store first(source);
    Store second(source);
    expectOpens(first, "one");
    expectOpens(second, "two");
}

TEST_F(Pkcs12, IndefiniteLengthIsRead) {
    const Bytes der = keyAndCertificate(); // 30 82 xx xx ...
    Bytes ber{0x30, 0x80};
    norvauthority::der::append(ber, {der.begin() + 4, der.end()});
    norvauthority::der::append(ber, {0, 0});
    expectOpens(*storeOf(ber), "secret");
}

TEST_F(Pkcs12, ErrorsQueuedBeforeStayOnSuccess) {
    const auto store = storeOf(pkcs12({.key = &holder()}));
    ERR_raise(ERR_LIB_USER, 5);
    store->read("secret");
    EXPECT_NE(ERR_get_error(), 0UL);
}

} // namespace
