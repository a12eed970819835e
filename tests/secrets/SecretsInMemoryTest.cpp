// What is left of secrets by signing, decrypting and importing.

#include "SecretsInMemory.h"

#include "support/Pkcs12.h"

#include <norvcmsg/File.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/CMSEncryptionMedia.h>
#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSSignerMedia.h>

#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

using namespace secrettesting;
using Norvane::File;

void signs(const std::string& folder) {
    const auto pair = keysIn(folder)->findSigningKey(owner());
    Norvane::NullMediaOut target;
    CMS::SignerMediaOut signer(Hasher::SHA256, pair);
    signer.attach(target);
    signer.write(reinterpret_cast<const unsigned char*>("body"), 4);
    signer.end();
}

void decryptsAsPrescribed(const std::string& folder) {
    Norvane::FileMediaIn message(File::Path(folder + "/message"));
    CMS::DecrypterMediaIn decrypter(message, keysIn(folder));
    Norvane::SwapBufferMediaOut clear(1U << 20U, "/tmp/secretsXXXXXX");
    if (!decrypter.decrypt(clear)) {
        std::abort();
    }
    Norvane::NullMediaOut target;
    clear.in().write(target);
}

void readsEnvelope(const std::string& folder, const char* name) {
    const CMS::KeyStoreLookup keys(keysIn(folder));
    CMS::EnvelopeReader reader(Norvane::FileMediaIn(File::Path(folder + name)));
    Norvane::NullMediaOut target;
    if (!reader.open(keys)) {
        std::abort();
    }
    reader.write(target);
}

void readsMail(const std::string& folder) {
    const CMS::KeyStoreLookup keys(keysIn(folder));
    SMime::ReadOptions options;
    options.keys = &keys;
    Norvane::NullMediaOut target;
    const auto answer = SMime::read(Norvane::FileMediaIn(File::Path(folder + "/mail")), target, options);
    if (answer.verdict != SMime::Verdict::decrypted) {
        std::abort();
    }
}

void importsPkcs12(const std::string& folder) {
    FileBIO file(File::Path(folder + "/alice.p12"), "rb");
    Norvane::Crypto::PKCS12::Store store(file);
    std::string passphrase;
    { // the caller's own copy
        Norvane::FileMediaIn in(File::Path(folder + "/store/alice/passphrase"));
        in.read(passphrase);
        passphrase.pop_back();
    }
    store.read(passphrase);
    norvtest::owned(store);
    explicit_bzero(passphrase.data(), passphrase.size());
}

/// What OpenSSL leaves when it reads a key by itself.
void opensslReadsAKey(const std::string& folder) {
    static char passphrase[200];
    std::FILE* const file = std::fopen((folder + "/store/alice/passphrase").c_str(), "re");
    std::setvbuf(file, nullptr, _IONBF, 0);
    passphrase[std::fread(passphrase, 1, sizeof passphrase - 1, file) - 1] = '\0';
    std::fclose(file);
    BIO* const bio = BIO_new_file((folder + "/store/alice/key.pem").c_str(), "r");
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, passphrase);
    if (key == nullptr) {
        std::abort();
    }
    EVP_PKEY_free(key);
    BIO_free(bio);
    explicit_bzero(passphrase, sizeof passphrase);
}

const AddedWork s_works[] = {
    {"nothing", [](const std::string&) {}},
    {"openssl", opensslReadsAKey},
    {"sign", signs},
    {"decrypt", decryptsAsPrescribed},
    {"readEnvelope", [](const std::string& folder) { readsEnvelope(folder, "/message"); }},
    {"readAuthenticatedEnvelope", [](const std::string& folder) { readsEnvelope(folder, "/authenticated"); }},
    {"readMail", readsMail},
    {"importPkcs12", importsPkcs12},
    {"keep",
     [](const std::string& folder) { // what has to be found
         static const auto pair = keysIn(folder)->findSigningKey(owner());
     }},
};

// The search is no good unless it finds what is there.
TEST_F(SecretsInMemory, FindsAKeyThatIsKept) {
    const Found found = leftBy("keep");
    EXPECT_NE(
        std::find_if(found.begin(), found.end(), [](const std::string& one) { return one.rfind("p in ", 0) == 0; }),
        found.end());
    EXPECT_EQ(leftBy("nothing"), Found());
}

TEST_F(SecretsInMemory, NothingOfAKeyIsLeftBySigning) {
    EXPECT_EQ(leftByUs("sign"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByDecryptingAsPrescribed) {
    EXPECT_EQ(leftByUs("decrypt"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByReadingAnEnvelope) {
    EXPECT_EQ(leftByUs("readEnvelope"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByReadingAnAuthenticatedEnvelope) {
    EXPECT_EQ(leftByUs("readAuthenticatedEnvelope"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByReadingAMail) {
    EXPECT_EQ(leftByUs("readMail"), Found());
}

TEST_F(SecretsInMemory, NothingIsLeftByImportingPkcs12) {
    EXPECT_EQ(leftByUs("importPkcs12"), Found());
}

TEST_F(SecretsInMemory, NothingOfAKeyIsInACoreDump) {
    std::ifstream pattern("/proc/sys/kernel/core_pattern");
    std::string text;
    std::getline(pattern, text);
    if (text.empty() || text.find_first_of("|/") != std::string::npos) {
        GTEST_SKIP() << "core dumps go somewhere else here: " << text;
    }
    EXPECT_NE(leftInCoreOf("keep"), Found());
    const Found opensslsOwn = leftInCoreOf("openssl");
    for (const std::string& one : leftInCoreOf("sign")) {
        EXPECT_NE(std::find(opensslsOwn.begin(), opensslsOwn.end(), one), opensslsOwn.end()) << one;
    }
}

} // namespace
