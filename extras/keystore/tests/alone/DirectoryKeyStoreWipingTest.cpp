// What becomes of the memory through which keys and passphrases pass. This program stands in for the functions that
// wipe, and looks at what is wiped.

#include "../Store.h"
#include "support/Interpose.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

namespace {

bool s_watching = false;
std::vector<std::string> s_wiped;

void note(void* memory, std::size_t length) {
    if (s_watching) {
        s_watching = false; // the note itself is no secret
        s_wiped.emplace_back(static_cast<const char*>(memory), length);
        s_watching = true;
    }
}

} // namespace

extern "C" void OPENSSL_cleanse(void* memory, std::size_t length) {
    note(memory, length);
    norvtest::next<&OPENSSL_cleanse>("OPENSSL_cleanse")(memory, length);
}

extern "C" void explicit_bzero(void* memory, std::size_t length) {
    note(memory, length);
    norvtest::next<&explicit_bzero>("explicit_bzero")(memory, length);
}

namespace {

using namespace keystoretesting;

class DirectoryKeyStoreWipingTest : public DirectoryKeyStoreTest {
protected:
    /// The number of memories wiped when a key is asked for that began with `secret`.
    std::ptrdiff_t wipesOf(const std::string& secret) {
        s_wiped.clear();
        s_watching = true;
        const auto store = open();
        static_cast<void>(store->findSigningKey(address("a@x.example")));
        s_watching = false;
        m_problems = store->contents()->problems.size();
        return std::count_if(s_wiped.begin(), s_wiped.end(),
                             [&](const std::string& memory) { return memory.compare(0, secret.size(), secret) == 0; });
    }
    std::size_t m_problems = 0;
};

TEST_F(DirectoryKeyStoreWipingTest, TheTextOfAKeyIsWiped) {
    m_store.add("x", "*\n");
    EXPECT_EQ(wipesOf(sharedKey().pkcs8Pem()), 1); // the only memory that held it
    EXPECT_EQ(m_problems, 0U);
}

TEST_F(DirectoryKeyStoreWipingTest, TheTextOfAKeyThatIsRefusedIsWipedToo) {
    const std::string other = norvauthority::Key::ec().pkcs8Pem();
    m_store.add("x", "*\n");
    m_store.file("x/key.pem", other);
    EXPECT_EQ(wipesOf(other), 1);
    EXPECT_EQ(m_problems, 1U);
}

TEST_F(DirectoryKeyStoreWipingTest, ThePassphraseIsWiped) {
    const std::string passphrase = "a passphrase that stands nowhere else";
    m_store.add("x", "*\n");
    m_store.file("x/passphrase", passphrase + "\n");
    EXPECT_EQ(wipesOf(passphrase), 2); // the file and the line, of which a clear key makes no use
    EXPECT_EQ(m_problems, 0U);
    m_store.file("x/key.pem", sharedKey().encryptedPem(passphrase));
    EXPECT_GE(wipesOf(passphrase), 3); // OpenSSL's copy too
    EXPECT_EQ(m_problems, 0U);
    m_store.file("x/passphrase", passphrase + "\nand more\n");
    EXPECT_EQ(wipesOf(passphrase), 1);
    EXPECT_EQ(m_problems, 2U);
}

} // namespace
