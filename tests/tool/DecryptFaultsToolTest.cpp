// norvcrypt decrypt on messages that are damaged, no messages at all, or for very many; and on disks that are full.

#include "support/ToolTest.h"

#include <openssl/pkcs7.h>
#include <openssl/rsa.h>

#include <filesystem>
#include <functional>
#include <unistd.h>

using namespace interop;
using norvauthority::Bytes;
using norvauthority::Identity;

namespace {

const std::string issuer = "issuer CN=Interop Root,O=Interop,C=DE serial number ";
const std::string failed = "failed, the message is damaged (event 0x300005B)";

class DecryptFaultsToolTest : public ToolTest {
protected:
    void SetUp() override {
        body = sampleBody();
        put("alice", alice());
        put("bob", bob());
        encrypt({"alice.pem", "bob.pem"}, body);
        before = work.names();
    }
    void put(const std::string& name, const Identity& identity) {
        work.write(name + ".pem", identity.certificate.pem());
        work.write(name + ".key", identity.key.pkcs8Pem());
    }
    void encrypt(const std::vector<std::string>& certificates, const std::string& content) {
        std::vector<std::string> arguments{"encrypt", "--out", "msg", "--to"};
        arguments.insert(arguments.end(), certificates.begin(), certificates.end());
        const Answer answer = tool(arguments, content);
        ASSERT_EQ(0, answer.status) << answer.err;
    }
    Answer decrypt(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--cert",
                                           "bob.pem", "--key",  "bob.key",   "--in",  "msg"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return tool(arguments);
    }
    void expectRefused(const Answer& answer, const std::vector<std::string>& report) {
        EXPECT_EQ(1, answer.status);
        EXPECT_EQ("", answer.out);
        EXPECT_EQ(report, linesOf(answer.err));
        EXPECT_EQ(before, work.names());
    }
    /// Decodes "msg", changes it and writes it back.
    void rewrite(const std::function<void(PKCS7_ENVELOPE&)>& change) {
        const norvauthority::Pkcs7Ptr structure = norvauthority::pkcs7(norvauthority::bytes(work.read("msg")));
        change(*structure->d.enveloped);
        unsigned char* der = nullptr;
        const int length = i2d_PKCS7(structure.get(), &der);
        ASSERT_LT(0, length);
        work.write("msg", Bytes(der, der + length));
        OPENSSL_free(der);
    }
    /// What a key makes of the content; nothing when the padding gives it away.
    static std::optional<std::string> openedWith(const PKCS7_ENC_CONTENT& content, const Bytes& key) {
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                      EVP_CIPHER_CTX_free);
        const ASN1_OCTET_STRING* const iv = content.algorithm->parameter->value.octet_string;
        std::string clear(static_cast<std::size_t>(ASN1_STRING_length(content.enc_data)) + 32, '\0');
        auto* const out = reinterpret_cast<unsigned char*>(clear.data());
        int length = 0;
        int last = 0;
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), ASN1_STRING_get0_data(iv));
        EVP_DecryptUpdate(context.get(), out, &length, ASN1_STRING_get0_data(content.enc_data),
                          ASN1_STRING_length(content.enc_data));
        if (EVP_DecryptFinal_ex(context.get(), out + length, &last) != 1)
            return std::nullopt;
        clear.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
        return clear;
    }
    static Bytes encryptedFor(const Identity& identity, const Bytes& key) {
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
            EVP_PKEY_CTX_new(identity.key.get(), nullptr), EVP_PKEY_CTX_free);
        Bytes result(256);
        std::size_t length = result.size();
        if (EVP_PKEY_encrypt_init(context.get()) != 1 ||
            EVP_PKEY_encrypt(context.get(), result.data(), &length, key.data(), key.size()) != 1)
            throw std::runtime_error("RSA");
        result.resize(length);
        return result;
    }

    std::string body;
};

TEST_F(DecryptFaultsToolTest, DamagedPaddingIsRefusedAlthoughMostOfTheBodyCameOut) {
    std::string der = work.read("msg");
    // The block before the last one is added to the last one: no padding ends in a byte above 16.
    der[der.size() - 17] = static_cast<char>(static_cast<unsigned char>(der[der.size() - 17]) ^ 0x80U);
    work.write("msg", der);
    const std::vector<std::string> report{
        "norvcrypt: recipient 1, " + issuer + "2001: decryption with the key in alice.key " + failed,
        "norvcrypt: recipient 2, " + issuer + "2004: decryption with the key in bob.key " + failed};
    expectRefused(decrypt(), report);
    expectRefused(decrypt({"--out", "out"}), report);
}

TEST_F(DecryptFaultsToolTest, GarbageOfAFailedAttemptIsNoPartOfTheBody) {
    rewrite([](PKCS7_ENVELOPE& envelope) {
        // Another content key for Alice, one that the padding gives away after a body of garbage.
        Bytes key(32);
        while (openedWith(*envelope.enc_data, key))
            ++key[0];
        const Bytes encrypted = encryptedFor(alice(), key);
        PKCS7_RECIP_INFO* const first = sk_PKCS7_RECIP_INFO_value(envelope.recipientinfo, 0);
        ASN1_OCTET_STRING_set(first->enc_key, encrypted.data(), static_cast<int>(encrypted.size()));
    });
    for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--out", "out"}}) {
        const Answer answer = decrypt(more);
        EXPECT_EQ(0, answer.status);
        EXPECT_TRUE(body == (more.empty() ? answer.out : work.read("out")));
        const std::vector<std::string> report = linesOf(answer.err);
        ASSERT_EQ(2U, report.size()) << answer.err;
        EXPECT_EQ("norvcrypt: recipient 1, " + issuer + "2001: decryption with the key in alice.key " + failed,
                  report[0]);
        EXPECT_EQ("norvcrypt: recipient 2, " + issuer +
                      "2004: decrypted with the key in bob.key, certificate SHA-256 " + bob().certificate.sha256(),
                  report[1]);
    }
}

TEST_F(DecryptFaultsToolTest, MessageWithoutRecipientsOrWithoutContent) {
    rewrite([](PKCS7_ENVELOPE& envelope) {
        while (PKCS7_RECIP_INFO* const one = sk_PKCS7_RECIP_INFO_pop(envelope.recipientinfo))
            PKCS7_RECIP_INFO_free(one);
    });
    expectRefused(decrypt({"--out", "out"}), {"norvcrypt: the structure names no recipient"});
    encrypt({"alice.pem"}, body);
    rewrite([](PKCS7_ENVELOPE& envelope) {
        ASN1_OCTET_STRING_free(envelope.enc_data->enc_data);
        envelope.enc_data->enc_data = nullptr;
    });
    expectRefused(decrypt({"--out", "out"}),
                  {"norvcrypt: the encrypted body is not in the structure (event 0x3000059)"});
}

TEST_F(DecryptFaultsToolTest, TruncatedMessages) {
    const std::string der = work.read("msg");
    for (const std::size_t length :
         {std::size_t{1}, std::size_t{20}, std::size_t{300}, der.size() / 2, der.size() - 1}) {
        work.write("msg", der.substr(0, length));
        EXPECT_EQ(2, decrypt({"--out", "out"}).status) << length;
        expectFailure(decrypt({"--out", "out"}), "norvcrypt: ");
    }
    const std::string text = norvauthority::pem("PKCS7", norvauthority::bytes(der));
    work.write("msg", text.substr(0, text.size() / 2));
    expectFailure(decrypt({"--out", "out"}), "no CMS structure in msg");
}

TEST_F(DecryptFaultsToolTest, Garbage) {
    const std::string der = work.read("msg");
    for (const std::string& content : {std::string(), std::string("no message at all"), std::string(5000, '\0')}) {
        work.write("msg", content);
        expectFailure(decrypt({"--out", "out"}),
                      content.empty() ? "no CMS structure in msg: it is empty\n" : "no CMS structure in msg\n");
    }
    for (const std::string& content : {std::string(5000, '\x30'), der.substr(20)}) {
        work.write("msg", content);
        expectFailure(decrypt({"--out", "out"}), "norvcrypt: ");
    }
    work.write("msg", alice().certificate.der);
    expectFailure(decrypt({"--out", "out"}), "cannot read the encrypted message in msg: ");
    work.write("msg", der + der);
    expectFailure(decrypt({"--out", "out"}), "norvcrypt: bytes follow the CMS structure in msg\n");
}

TEST_F(DecryptFaultsToolTest, MailsAndBase64AreTakenAsTheyAre) {
    const auto openssl = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "openssl");
        EXPECT_EQ(0, run({.arguments = arguments, .directory = work.directory()}).status) << arguments[1];
    };
    work.write("body", body);
    openssl({"smime", "-encrypt", "-binary", "-aes256", "-in", "body", "-out", "msg", "alice.pem"});
    EXPECT_EQ(body, decrypt().out);
    // The mail without its header.
    openssl({"smime", "-encrypt", "-binary", "-aes256", "-outform", "DER", "-in", "body", "-out", "der", "alice.pem"});
    openssl({"base64", "-in", "der", "-out", "msg"});
    EXPECT_EQ(body, decrypt().out);
    // One that holds more than a structure.
    work.write("msg", "Content-Type: multipart/mixed; boundary=b\n\n--b\n" + work.read("msg") + "--b--\n");
    before = work.names();
    expectFailure(decrypt(), "norvcrypt: no CMS structure in msg: it is a mail; norvcrypt smime verify, decrypt and "
                             "inspect read those\n");
}

TEST_F(DecryptFaultsToolTest, StructuresThatAreNotEncrypted) {
    ASSERT_EQ(0, tool({"sign", "--cert", "alice.pem", "--key", "alice.key", "--out", "msg"}, body).status);
    expectFailure(decrypt({"--out", "out"}),
                  "norvcrypt: msg holds no encrypted body but what norvcrypt verify reads: ");
}

TEST_F(DecryptFaultsToolTest, SoundMessagesThatNeedMoreAreNamedAndNotCalledDamaged) {
    // The cipher of a sound message is made one that nobody knows (2.16.840.1.101.3.4.1.127).
    const std::string known("\x60\x86\x48\x01\x65\x03\x04\x01\x2a", 9);
    std::string der = work.read("msg");
    const std::size_t at = der.find(known);
    ASSERT_NE(std::string::npos, at);
    der[at + known.size() - 1] = '\x7f';
    work.write("msg", der);
    before = work.names();
    const std::string needs = " needs what is not supported: 2.16.840.1.101.3.4.1.127\n";
    expectFailure(decrypt({"--out", "out"}), "norvcrypt: msg" + needs);
    expectFailure(tool({"decrypt", "--cert", "alice.pem", "--key", "alice.key"}, der),
                  "norvcrypt: standard input" + needs);
    // Likewise the way in which the content key was encrypted for Alice (1.2.840.113549.1.1.1, then .127).
    encrypt({"alice.pem"}, body);
    der = work.read("msg");
    const std::size_t transport = der.find(std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01", 9));
    ASSERT_NE(std::string::npos, transport);
    der[transport + 8] = '\x7f';
    work.write("msg", der);
    expectFailure(decrypt({"--out", "out"}), "norvcrypt: recipient 1, " + issuer +
                                                 "2001: 1.2.840.113549.1.1.127 is not supported (event 0x300005B)\n");
    // For somebody else it makes no difference.
    EXPECT_EQ(1, tool({"decrypt", "--cert", "bob.pem", "--key", "bob.key", "--in", "msg"}).status);
}

TEST_F(DecryptFaultsToolTest, OldCiphersOfOtherSendersOpen) {
    work.write("body", body);
    for (const char* cipher : {"-rc2-40", "-rc2-64", "-rc2-128"}) {
        ASSERT_EQ(0,
                  run({.arguments = {"openssl", "smime", "-encrypt", "-binary", "-outform", "DER", cipher, "-in",
                                     "body", "-out", "msg", "-provider", "legacy", "-provider", "default", "alice.pem"},
                       .directory = work.directory()})
                      .status);
        EXPECT_TRUE(body == decrypt().out) << cipher;
    }
}

TEST_F(DecryptFaultsToolTest, RecipientsBeyondWhatAMessageMayCostAreToldInOneLine) {
    rewrite([](PKCS7_ENVELOPE& envelope) {
        while (PKCS7_RECIP_INFO* const one = sk_PKCS7_RECIP_INFO_pop(envelope.recipientinfo))
            PKCS7_RECIP_INFO_free(one);
        for (int at = 0; at < 500; ++at) {
            PKCS7_RECIP_INFO* const one = PKCS7_RECIP_INFO_new();
            PKCS7_RECIP_INFO_set(one, alice().certificate.x509().get());
            X509_ALGOR_set0(one->key_enc_algor, OBJ_nid2obj(NID_rsaEncryption), V_ASN1_NULL, nullptr);
            const Bytes encrypted = encryptedFor(alice(), Bytes(32, 1));
            ASN1_OCTET_STRING_set(one->enc_key, encrypted.data(), static_cast<int>(encrypted.size()));
            sk_PKCS7_RECIP_INFO_push(envelope.recipientinfo, one);
        }
        // No whole number of blocks: no key comes to an answer by chance.
        envelope.enc_data->enc_data->length -= 1;
    });
    // One of them might have opened it.
    const Answer answer = decrypt({"--out", "out"});
    EXPECT_EQ(2, answer.status);
    const std::vector<std::string> report = linesOf(answer.err);
    ASSERT_EQ(4U, report.size()) << answer.err;
    EXPECT_EQ("norvcrypt: recipient 3, " + issuer + "2001: decryption with the key in alice.key " + failed, report[2]);
    EXPECT_EQ("norvcrypt: recipients 4 to 500: not tried, the message has more recipients than a message may cost "
              "(event 0x300005F)",
              report[3]);
}

TEST_F(DecryptFaultsToolTest, LongBodyIsHeldBackInAFileThatDoesNotStay) {
    std::string longBody;
    while (longBody.size() < 3U << 20U)
        longBody += body;
    encrypt({"alice.pem"}, longBody);
    std::filesystem::create_directory(work.path("spool"));
    before = work.names();
    const auto in = [&](const std::string& directory) {
        return norvcrypt(Command{
            .arguments = {"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--in", "msg"},
            .directory = work.directory(),
            .environment = {{"TMPDIR", work.path(directory)}},
        });
    };
    EXPECT_TRUE(longBody == in("spool").out);
    EXPECT_TRUE(std::filesystem::is_empty(work.path("spool")));
    expectFailure(in("none"), "cannot make a temporary file from ");
}

TEST_F(DecryptFaultsToolTest, PlacesThatCannotBeWrittenTo) {
    const auto with = [&](Command command) {
        command.arguments = {"decrypt", "--cert", "alice.pem", "--key", "alice.key", "--in", "msg"};
        command.directory = work.directory();
        const Answer answer = norvcrypt(command);
        // The report stands in front of the failure.
        EXPECT_EQ(2, answer.status);
        EXPECT_EQ("", answer.out);
        return linesOf(answer.err).back();
    };
    EXPECT_EQ("norvcrypt: cannot write standard output: No space left on device", with({.outputFile = "/dev/full"}));
    EXPECT_EQ("norvcrypt: cannot write standard output: Broken pipe", with({.outputBroken = true}));
    EXPECT_EQ("norvcrypt: cannot write standard output: Bad file descriptor", with({.outputClosed = true}));
    const Answer full = decrypt({"--out", "/dev/full"});
    EXPECT_EQ(2, full.status);
    EXPECT_EQ("norvcrypt: cannot write /dev/full: No space left on device", linesOf(full.err).back());
    // Whether the body was written is a part of what is told there.
    const Answer untold = decrypt({"--out", "/dev/full", "--json"});
    EXPECT_EQ(2, untold.status);
    EXPECT_EQ("", untold.out);
    EXPECT_EQ("norvcrypt: cannot write /dev/full: No space left on device\n", untold.err);
}

TEST_F(DecryptFaultsToolTest, ManyRecipients) {
    constexpr int count = 100;
    std::vector<std::string> certificates;
    for (int at = 0; at < count; ++at) {
        const std::string name = "many" + std::to_string(at) + ".pem";
        const Identity one = norvauthority::issue(
            {.subject = {{"CN", name}}, .key = bob().key, .issuer = &root(), .serial = std::to_string(30000 + at)});
        work.write(name, one.certificate.pem());
        certificates.push_back(name);
    }
    encrypt(certificates, body);
    const Answer answer = tool({"decrypt", "--cert", certificates.back(), "--key", "bob.key", "--in", "msg"});
    EXPECT_EQ(0, answer.status);
    EXPECT_EQ(body, answer.out);
    const std::vector<std::string> report = linesOf(answer.err);
    ASSERT_EQ(100U, report.size());
    EXPECT_EQ("norvcrypt: recipient 1, " + issuer + "030000: no key for it (event 0x300005A)", report.front());
    EXPECT_EQ(0U, report.back().find("norvcrypt: recipient 100, " + issuer + "030099: decrypted with"))
        << report.back();
}

TEST_F(DecryptFaultsToolTest, HostileNamesCannotForgeALine) {
    const Identity evil = norvauthority::issue(
        {.subject = {{"CN", "evil\nnorvcrypt: recipient 2: decrypted\x1B[2J\xFF", V_ASN1_T61STRING}},
         .key = norvauthority::Key::ec(),
         .ca = true});
    const Identity child =
        norvauthority::issue({.subject = {{"CN", "child"}}, .key = bob().key, .issuer = &evil, .serial = "66"});
    work.write("child.pem", child.certificate.pem());
    encrypt({"child.pem"}, body);
    const Answer answer = decrypt();
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ(
        "norvcrypt: recipient 1, issuer CN=evil\\\\0Anorvcrypt: recipient 2: decrypted\\\\1B[2J\xC3\xBF serial number "
        "66: no key for it (event 0x300005A)\n",
        answer.err);
}

} // namespace
