// No file that may hold a key or a passphrase leaves its bytes in memory that is given back.

#include "support/FreedMemory.h"
#include "support/Workspace.h"

#include "files/Input.h"
#include "read/Passphrase.h"

#include <norvcrypto/Crypto.h>

#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>

using namespace norvcrypt;

namespace {

const std::string secret = "correct horse battery staple";

class SecretsTest : public testing::Test {
protected:
    interop::Workspace work;
    const std::string path = work.write("secret", secret + "\nand more");
};

TEST_F(SecretsTest, TheMemoryOfAStreamIsWiped) {
    EXPECT_EQ(0, norvtest::freedWith(secret, [this] {
                  Inputs inputs;
                  Norvane::MediaIn in = inputs.open(path);
                  EXPECT_EQ('c', in.peek());
              }));
}

TEST_F(SecretsTest, SoIsWhatWasReadAhead) {
    EXPECT_EQ(0, norvtest::freedWith(secret.substr(0, 16), [this] {
                  Inputs inputs;
                  Norvane::MediaIn source = inputs.open(path);
                  Norvane::Buffer start;
                  Norvane::MediaIn in = Inputs::lookAhead(source, 16, start);
                  EXPECT_EQ('c', in.peek());
              }));
}

TEST_F(SecretsTest, SoIsAWholeFile) {
    EXPECT_EQ(0, norvtest::freedWith(secret, [this] {
                  Inputs inputs;
                  EXPECT_EQ(secret.size() + 9, inputs.readAll(path, true).length());
              }));
}

TEST_F(SecretsTest, SoIsAPassphrase) {
    EXPECT_EQ(0, norvtest::freedWith(secret, [this] {
                  Inputs inputs;
                  const Passphrase passphrase(inputs, path);
                  EXPECT_EQ(secret.size(), passphrase.text().size());
              }));
}

TEST_F(SecretsTest, TheTestSeesWhatIsNotWiped) {
    EXPECT_LT(0, norvtest::freedWith(secret, [] { const std::string copy(secret + " is copied here"); }));
}

} // namespace
