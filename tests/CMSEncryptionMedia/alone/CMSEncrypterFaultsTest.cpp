// Failures that nobody outside can provoke: OpenSSL's functions are defined here, fail on demand, and otherwise
// forward.
#include "support/Envelope.h"
#include "support/Faults.h"

using namespace cmstest;
using namespace norvtest;

namespace {

BIO* s_chain = nullptr;
/// How many blocks of a size in which encrypted content collects are given out before there is no more memory, or for one
/// of them.
int s_blocks = -1;
std::size_t s_blockSize = 65536;
bool s_once = false;
/// How many BIOs of the library's are made before one is not.
int s_passing = 0;

} // namespace

REPLACEMENT int PKCS7_set_type(PKCS7* structure, int type) {
    return failsNow("PKCS7_set_type") ? 0 : FORWARD(PKCS7_set_type, structure, type);
}
REPLACEMENT int PKCS7_set_cipher(PKCS7* structure, const EVP_CIPHER* cipher) {
    return failsNow("PKCS7_set_cipher") ? 0 : FORWARD(PKCS7_set_cipher, structure, cipher);
}
REPLACEMENT PKCS7_RECIP_INFO* PKCS7_add_recipient(PKCS7* structure, X509* certificate) {
    return failsNow("PKCS7_add_recipient") ? nullptr : FORWARD(PKCS7_add_recipient, structure, certificate);
}
REPLACEMENT BIO* PKCS7_dataInit(PKCS7* structure, BIO* sink) {
    EXPECT_EQ(sink, nullptr);
    s_chain = failsNow("PKCS7_dataInit") ? nullptr : FORWARD(PKCS7_dataInit, structure, sink);
    return s_chain;
}
REPLACEMENT int BIO_write(BIO* out, const void* data, int length) {
    if (out != s_chain) {
        return FORWARD(BIO_write, out, data, length);
    }
    note("BIO_write " + std::to_string(length));
    return fails("BIO_write") ? length - 1 : FORWARD(BIO_write, out, data, length);
}
REPLACEMENT int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outLength, const unsigned char* in,
                                 int length) {
    return fails("EVP_CipherUpdate") ? 0 : FORWARD(EVP_CipherUpdate, context, out, outLength, in, length);
}
REPLACEMENT long BIO_ctrl(BIO* bio, int command, long number, void* argument) {
    if (bio != s_chain || command != BIO_CTRL_FLUSH) {
        return FORWARD(BIO_ctrl, bio, command, number, argument);
    }
    note("BIO_ctrl " + std::to_string(command));
    return fails("BIO_ctrl") ? 0 : FORWARD(BIO_ctrl, bio, command, number, argument);
}
REPLACEMENT long PKCS7_ctrl(PKCS7* structure, int command, long number, char* argument) {
    note("PKCS7_ctrl " + std::to_string(command) + " " + std::to_string(number));
    return FORWARD(PKCS7_ctrl, structure, command, number, argument);
}
REPLACEMENT int PKCS7_dataFinal(PKCS7* structure, BIO* chain) {
    return failsNow("PKCS7_dataFinal") ? 0 : FORWARD(PKCS7_dataFinal, structure, chain);
}
REPLACEMENT int i2d_PKCS7(const PKCS7* structure, unsigned char** out) {
    return failsNow("i2d_PKCS7") ? -1 : FORWARD(i2d_PKCS7, structure, out);
}
REPLACEMENT BIO* BIO_new(const BIO_METHOD* method) {
    const bool counts = s_depth == 0 && std::strcmp(s_failing, "BIO_new") == 0;
    return counts && s_passing-- == 0 && fails("BIO_new") ? nullptr : FORWARD(BIO_new, method);
}
REPLACEMENT void* CRYPTO_malloc(std::size_t length, const char* file, int line) {
    if (length == s_blockSize && s_blocks >= 0 && s_blocks-- == 0) {
        s_blocks = s_once ? -1 : 0;
        return nullptr;
    }
    return next<&CRYPTO_malloc>("CRYPTO_malloc")(length, file, line);
}

namespace {

class Fault : public ::testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    void TearDown() override {
        EXPECT_STREQ(s_failing, "") << "the fault was not reached";
        s_failing = "";
        s_blocks = -1;
        s_blockSize = 65536;
        ERR_clear_error();
    }
    /// The constructor's failure when a function fails.
    static Caught construction(const char* function) {
        const auto recipients = certificatesOf({&alice(), &bob()});
        s_failing = function;
        const Caught failure = caught([&] { const CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, recipients); });
        EXPECT_EQ(ERR_peek_error(), 0UL);
        EXPECT_EQ(failure.code, 4);
        EXPECT_EQ(failure.file, "CMSEncryptionMedia");
        EXPECT_EQ(failure.details.size(), 1U);
        return failure;
    }
    static void expectConstructor(const char* function, unsigned int line) {
        const Caught failure = construction(function);
        EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::EncrypterMediaOutImpl");
        EXPECT_EQ(failure.line, line);
        ASSERT_EQ(failure.details.size(), 1U);
        EXPECT_NE(failure.details.front().find("0x4000002a"), std::string::npos) << failure.details.front();
    }
    /// Nothing is sent when a function fails while a stream of that body is ended.
    static void expectEndFails(const char* function, const Bytes& body, unsigned int line, std::size_t piece = 4000) {
        Norvane::MemoryMediaOut target;
        CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
        encrypter.attach(target);
        s_failing = function;
        writeInPieces(encrypter, body, piece);
        expectEnd(caught([&] { encrypter.end(); }), line);
        EXPECT_EQ(target.content().length(), 0U);
        EXPECT_FALSE(target.ended());
    }
    static void expectEnd(const Caught& failure, unsigned int line) {
        EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::end");
        EXPECT_EQ(failure.code, 4);
        EXPECT_EQ(failure.file, "CMSEncryptionMedia");
        if (line != 0) {
            EXPECT_EQ(failure.line, line);
        } else {
            EXPECT_NE(failure.line, 136U);
        }
        ASSERT_EQ(failure.details.size(), 1U);
        EXPECT_EQ(failure.details.front().substr(0, 2), "0x");
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
};

} // namespace

TEST_F(Fault, TheCallsComeInTheirOrder) {
    const Bytes body = bodyOf(9000);
    const auto recipients = certificatesOf({&alice(), &bob()});
    s_calls.clear();
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, recipients);
    EXPECT_EQ(s_calls, (std::vector<std::string>{"PKCS7_set_type", "PKCS7_set_cipher", "PKCS7_add_recipient",
                                                 "PKCS7_add_recipient", "PKCS7_dataInit"}));
    Norvane::MemoryMediaOut target;
    encrypter.attach(target);
    s_calls.clear();
    encrypter.write(body.data(), 4096);
    EXPECT_TRUE(s_calls.empty()) << "4096 bytes are buffered";
    encrypter.write(body.data() + 4096, 4904);
    EXPECT_EQ(s_calls, std::vector<std::string>{"BIO_write 4096"});
    s_calls.clear();
    encrypter.end();
    EXPECT_EQ(s_calls, (std::vector<std::string>{"BIO_write 4904", "BIO_ctrl 11", "PKCS7_ctrl 1 1", "PKCS7_dataFinal",
                                                 "i2d_PKCS7"}));
    s_calls.clear();
    encrypter.end();
    EXPECT_EQ(s_calls, std::vector<std::string>{"i2d_PKCS7"}) << "a structure is finished once";
}

TEST_F(Fault, ABodyOf4096BytesIsBufferedUntilTheEnd) {
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    Norvane::MemoryMediaOut target;
    encrypter.attach(target);
    s_calls.clear();
    const Bytes body = bodyOf(4096);
    encrypter.write(body.data(), 2000);
    encrypter.write(body.data() + 2000, 2096);
    EXPECT_TRUE(s_calls.empty());
    encrypter.end();
    EXPECT_EQ(s_calls.front(), "BIO_write 4096");
    EXPECT_EQ(openedByOpenssl(bytesOf(target.content()), alice()), body);
}

// Neither the buffer nor the cipher BIO copies it.
TEST_F(Fault, ALongPieceIsEncryptedWhereItCollects) {
    const Bytes body = bodyOf(300000);
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    encrypter.attach(target);
    s_calls.clear();
    encrypter.write(body.data(), 100);
    encrypter.write(body.data() + 100, 199900);
    encrypter.write(body.data() + 200000, 10000);
    encrypter.write(body.data() + 210000, 90000);
    EXPECT_EQ(s_calls, std::vector<std::string>{"BIO_write 100"}) << "in order";
    encrypter.end();
    EXPECT_EQ(openedByOpenssl(bytesOf(target.content()), alice()), body);
}

TEST_F(Fault, TheStructureCannotBeTyped) {
    expectConstructor("PKCS7_set_type", 47);
}

TEST_F(Fault, TheCipherCannotBeSet) {
    expectConstructor("PKCS7_set_cipher", 55);
}

TEST_F(Fault, TheChainIsNotMade) {
    expectConstructor("PKCS7_dataInit", 74);
}

TEST_F(Fault, TheSinkIsNotMade) {
    s_passing = 1; // the adapter of the target comes first
    expectConstructor("BIO_new", 74);
}

TEST_F(Fault, ARecipientIsNotAdded) {
    const Caught failure = construction("PKCS7_add_recipient");
    EXPECT_EQ(failure.where, "CMS::EncrypterMediaOutImpl::addCertificate");
    EXPECT_EQ(failure.line, 96U);
}

TEST_F(Fault, TheStructureIsTypedBeforeTheCipherIsLookedUp) {
    s_failing = "PKCS7_set_type";
    const Caught failure = caught([] { const CMS::EncrypterMediaOut encrypter(static_cast<Crypto::Cipher>(0), {}); });
    EXPECT_EQ(failure.line, 47U);
}

TEST_F(Fault, TheStructureIsNotFinished) {
    expectEndFails("PKCS7_dataFinal", bodyOf(5000), 136);
}

TEST_F(Fault, TheStructureIsNotEncoded) {
    expectEndFails("i2d_PKCS7", bodyOf(5000), 0);
}

// A body of which a piece is missing must not be sent as if it were whole.
TEST_F(Fault, AWriteThatTheCipherDidNotTakeFailsTheEnd) {
    expectEndFails("BIO_write", bodyOf(20000), 136);
    expectEndFails("BIO_write", bodyOf(100), 136);
}

TEST_F(Fault, AFlushThatFailsFailsTheEnd) {
    expectEndFails("BIO_ctrl", bodyOf(5000), 136);
}

TEST_F(Fault, AFinishThatFailedMayComeAgain) {
    const Bytes body = bodyOf(9000);
    Norvane::MemoryMediaOut target;
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    encrypter.attach(target);
    writeInPieces(encrypter, body, 4000);
    s_failing = "PKCS7_dataFinal";
    expectEnd(caught([&] { encrypter.end(); }), 136);
    writeInPieces(encrypter, body, 4000); // dropped: the content is complete
    encrypter.end();
    EXPECT_TRUE(openedByOpenssl(bytesOf(target.content()), alice()) == body);
}

// Also where there is memory again later: OpenSSL's cipher passes over a refusal of the last bytes of a write, and offers
// them again.
TEST_F(Fault, NoMemoryForTheContentFailsTheEndWhereverItRunsOut) {
    for (const std::size_t length : {10U, 65535U, 70000U, 131072U, 300000U}) {
        for (int turn = 0; turn <= 2 * static_cast<int>(length / 65536) + 1; ++turn) {
            const Bytes body = bodyOf(length);
            Norvane::MemoryMediaOut target;
            CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
            encrypter.attach(target);
            s_blocks = turn / 2;
            s_once = turn % 2 == 1;
            writeInPieces(encrypter, body, 4000);
            expectEnd(caught([&] { encrypter.end(); }), 136);
            s_blocks = -1;
            EXPECT_EQ(target.content().length(), 0U);
            expectEnd(caught([&] { encrypter.end(); }), 136);
            EXPECT_EQ(target.content().length(), 0U) << "there is a gap in it for ever";
        }
    }
}

TEST_F(Fault, NoMemoryForALongPieceFailsTheEndWhereverItRunsOut) {
    for (const auto& [blockSize, blocks] : {std::pair<std::size_t, int>{65536, 8}, {1 << 20U, 2}}) {
        s_blockSize = blockSize;
        for (int turn = 0; turn != 2 * blocks; ++turn) {
            Norvane::MemoryMediaOut target;
            CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
            encrypter.attach(target);
            s_blocks = turn / 2;
            s_once = turn % 2 == 1;
            writeInPieces(encrypter, bodyOf(2000000), 90000);
            expectEnd(caught([&] { encrypter.end(); }), 136);
            s_blocks = -1;
            EXPECT_EQ(target.content().length(), 0U);
        }
    }
}

TEST_F(Fault, ALongPieceThatTheCipherDidNotTakeFailsTheEnd) {
    expectEndFails("EVP_CipherUpdate", bodyOf(20000), 136, 10000);
    expectEndFails("EVP_CipherUpdate", bodyOf(20000), 136, 20000);
}

// The encrypted body is in blocks beside the chain: OpenSSL's memory sink would move it each time it grows, and the
// encoder would copy it once more.
TEST_F(Fault, NoLinkOfTheChainKeepsTheBody) {
    CMS::EncrypterMediaOut encrypter(Crypto::AES_128_CBC, certificatesOf({&alice()}));
    ASSERT_NE(s_chain, nullptr);
    writeInPieces(encrypter, bodyOf(100000), 5000);
    EXPECT_NE(BIO_find_type(s_chain, BIO_TYPE_CIPHER), nullptr);
    EXPECT_EQ(BIO_pending(s_chain), 0);
}
