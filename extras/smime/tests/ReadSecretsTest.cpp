// Messages that are encrypted with what both sides have (RFC 5652, 6.2.3 and 6.2.4), and who can open a message.
#include "Mails.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using interop::erin;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string thePassword = "correct horse";
const std::string theKey = "0123456789abcdef"; // of AES-128
const std::string theName = "\xc0\xff\xee";

/// For whom a message is.
struct Readers {
    bool password = false;
    bool key = false;
    const Identity* person = nullptr;
    std::string name = theName;
    int iterations = -1; ///< of the password's hash; OpenSSL's own number
};

unsigned char* copied(const std::string& text) {
    void* const copy = OPENSSL_memdup(text.data(), text.size());
    return static_cast<unsigned char*>(copy);
}

/// As OpenSSL writes it.
std::string encryptedTo(const Readers& readers, const std::string& entity,
                        const EVP_CIPHER* cipher = EVP_aes_128_cbc()) {
    const unsigned int flags = CMS_BINARY | CMS_CRLFEOL | CMS_PARTIAL | CMS_STREAM;
    const Structure structure(CMS_encrypt(nullptr, nullptr, cipher, flags));
    if (readers.key) {
        EXPECT_NE(CMS_add0_recipient_key(structure.get(), NID_undef, copied(theKey), theKey.size(),
                                         copied(readers.name), readers.name.size(), nullptr, nullptr, nullptr),
                  nullptr);
    }
    if (readers.password) {
        EXPECT_NE(CMS_add0_recipient_password(structure.get(), readers.iterations, NID_undef, NID_undef,
                                              copied(thePassword), static_cast<ossl_ssize_t>(thePassword.size()),
                                              EVP_aes_128_cbc()),
                  nullptr);
    }
    if (readers.person != nullptr) {
        EXPECT_NE(CMS_add1_recipient_cert(structure.get(), readers.person->certificate.x509().get(), 0), nullptr);
    }
    const Bio content = sourceOf(entity);
    const Bio out(BIO_new(BIO_s_mem()));
    EXPECT_EQ(SMIME_write_CMS(out.get(), structure.get(), content.get(), static_cast<int>(flags)), 1);
    ERR_clear_error();
    return textOf(out.get());
}

/// In three octets.
std::string sizeOf(std::size_t size) {
    return {static_cast<char>(size >> 16U), static_cast<char>(size >> 8U), static_cast<char>(size)};
}

/// The structure that stands in an entity.
std::string binaryOf(const std::string& entity) {
    const std::string body = entity.substr(entity.find("\r\n\r\n") + 4);
    const Bio decoding(BIO_push(BIO_new(BIO_f_base64()), sourceOf(body).release()));
    std::string octets(body.size(), '\0');
    const int count = BIO_read(decoding.get(), octets.data(), static_cast<int>(octets.size()));
    EXPECT_GT(count, 0);
    octets.resize(static_cast<std::size_t>(std::max(count, 0)));
    return octets;
}

/// What the reader has.
struct Held {
    Norvane::Buffer password;
    Norvane::Buffer key;
    std::unique_ptr<Keys> keys;

    [[nodiscard]] SMime::ReadOptions options(bool hasPassword, bool hasKey) const {
        SMime::ReadOptions options;
        options.password = hasPassword ? &password : nullptr;
        options.keyEncryptionKey = hasKey ? &key : nullptr;
        options.keys = keys.get();
        return options;
    }
};

Held held() {
    return {x509testing::buffer(thePassword), x509testing::buffer(theKey), nullptr};
}

TEST(SMimeSecrets, OpenWhatIsEncryptedWithThem) {
    const Held all = held();
    for (const bool forPassword : {false, true}) {
        for (const bool forKey : {false, true}) {
            if (!forPassword && !forKey)
                continue;
            const std::string mail = fieldsOfAlice + encryptedTo({.password = forPassword, .key = forKey}, plainEntity);
            for (const bool hasPassword : {false, true}) {
                for (const bool hasKey : {false, true}) {
                    const Outcome outcome = outcomeOf(mail, all.options(hasPassword, hasKey));
                    const bool byKey = forKey && hasKey;
                    const bool byPassword = forPassword && hasPassword;
                    const bool isOpen = byKey || byPassword;
                    EXPECT_EQ(outcome.answer.verdict, isOpen ? Verdict::decrypted : Verdict::noKey);
                    EXPECT_EQ(outcome.content, isOpen ? plainEntity : "");
                    const SMime::Layer& layer = outcome.answer.layers.at(0);
                    EXPECT_EQ(layer.status, isOpen ? LayerStatus::good : LayerStatus::noKey);
                    EXPECT_EQ(layer.detail, isOpen ? "" : "there is no key for any recipient");
                    ASSERT_EQ(layer.recipients.size(), (forPassword ? 1U : 0U) + (forKey ? 1U : 0U));
                    for (const SMime::LayerRecipient& recipient : layer.recipients) {
                        const bool isKey = recipient.identifier == "key-encryption key c0ffee";
                        EXPECT_TRUE(isKey || recipient.identifier == "password") << recipient.identifier;
                        EXPECT_THAT(recipient.algorithm, isKey ? HasSubstr("aes128-wrap") : HasSubstr("PWRI-KEK"));
                        // The first one whose secret is there.
                        EXPECT_EQ(recipient.opened, isKey ? byKey : byPassword && !byKey);
                    }
                }
            }
        }
    }
}

TEST(SMimeSecrets, OthersOpenNothing) {
    Held others = held();
    others.password = x509testing::buffer("another one");
    others.key = x509testing::buffer("fedcba9876543210");
    for (const Readers& readers : {Readers{.password = true}, Readers{.key = true}}) {
        const std::string mail = fieldsOfAlice + encryptedTo(readers, plainEntity);
        const Outcome outcome = outcomeOf(mail, others.options(true, true));
        EXPECT_EQ(outcome.answer.verdict, Verdict::noKey);
        EXPECT_EQ(outcome.content, "");
        EXPECT_EQ(outcome.answer.layers.at(0).status, LayerStatus::noKey);
        EXPECT_EQ(outcome.answer.layers.at(0).detail,
                  "the password or key-encryption key is another one, or the message is damaged");
    }
}

/// A message whose last block is another one: of a certificate it is known who was meant.
TEST(SMimeSecrets, WhatACertificateOpensIsDamagedOrNot) {
    Held all = held();
    all.keys = std::make_unique<Keys>(std::vector<const Identity*>{&bob()});
    const auto damaged = [&](const Readers& readers) {
        std::string mail = fieldsOfAlice + encryptedTo(readers, plainEntity, EVP_aes_128_gcm());
        // AuthEnvelopedData (RFC 5083) ends with the code that authenticates it.
        const std::size_t last = mail.find_last_not_of("=\r\n");
        mail[last - 16] = mail[last - 16] == 'A' ? 'B' : 'A';
        return outcomeOf(mail, all.options(true, true)).answer;
    };
    EXPECT_EQ(damaged({.person = &bob()}).layers.at(0).status, LayerStatus::damaged);
    EXPECT_EQ(damaged({.password = true}).layers.at(0).status, LayerStatus::noKey);
    EXPECT_EQ(damaged({.key = true}).layers.at(0).status, LayerStatus::noKey);
}

TEST(SMimeSecrets, ThreeStructuresAreOpenedWithThePassword) {
    const Held all = held();
    std::string mixed = fieldsOfAlice + "Content-Type: multipart/mixed; boundary=m\r\n\r\n";
    for (int number = 0; number != 4; ++number)
        mixed += "--m\r\n" + encryptedTo({.password = true}, plainEntity) + "\r\n";
    mixed += "--m\r\n" + encryptedTo({.key = true}, plainEntity) + "\r\n";
    const Outcome outcome = outcomeOf(mixed + "--m--\r\n", all.options(true, true));
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("enveloped 1.1 good", "enveloped 1.2 good", "enveloped 1.3 good",
                                                      "enveloped 1.4 too-costly", "enveloped 1.5 good"));
    EXPECT_EQ(outcome.answer.layers[3].detail, "more than 3 structures with a password");
    EXPECT_EQ(outcome.answer.layers[4].detail, "");
}

// CMS::EnvelopeReader::Budget, whose member the text names: what is beyond makes no message damaged, and no password another one.
TEST(SMimeSecrets, WhatIsBeyondABudgetIsTooCostly) {
    const Held all = held();
    const Outcome hashed = outcomeOf(
        fieldsOfAlice + encryptedTo({.password = true, .iterations = 1000001}, plainEntity), all.options(true, false));
    EXPECT_EQ(hashed.answer.verdict, Verdict::tooCostly);
    EXPECT_EQ(hashed.content, "");
    EXPECT_THAT(hashed.answer.detail, HasSubstr("1000000 (Budget::passwordIterations)"));

    std::string structure = binaryOf(encryptedTo({.password = true}, plainEntity));
    const std::string ends(6, '\0'); // of EnvelopedData, the content and ContentInfo, whose lengths are indefinite
    ASSERT_TRUE(structure.ends_with(ends));
    structure.resize(structure.size() - ends.size());
    for (const bool isLong : {false, true}) {
        const std::size_t length = isLong ? 4 << 20U : 1024;
        // Unprotected attributes: [1] (RFC 5652, 6.1).
        const std::string attributes =
            "\xa1\x83" + sizeOf(length + 5) + "\x30\x83" + sizeOf(length) + std::string(length, '\0');
        const Outcome outcome =
            outcomeOf(fieldsOfAlice + "Content-Type: application/pkcs7-mime\r\n\r\n" + structure + attributes + ends,
                      all.options(true, false));
        EXPECT_EQ(outcome.answer.verdict, isLong ? Verdict::tooCostly : Verdict::decrypted);
        EXPECT_THAT(outcome.answer.detail, HasSubstr(isLong ? "(Budget::tail)" : "nobody signed it"));
    }
}

// That the source broke is no word about the password.
TEST(SMimeSecrets, ASourceThatBreaksIsNotTakenForAnotherPassword) {
    const Held all = held();
    const std::string mail = fieldsOfAlice + encryptedTo({.password = true}, "\r\n" + std::string(10000, 'x') + "\r\n");
    const Norvane::MediaIn failing(Norvane::makeReference<FailingIn, Norvane::MediaInImpl>(mail));
    Norvane::NullMediaOut content;
    EXPECT_THROW(static_cast<void>(SMime::read(failing, content, all.options(true, true))), Norvane::MediaException);
}

TEST(SMimeSecrets, LongNamesOfKeysAreToldInPart) {
    const std::string cut = "key-encryption key " + std::string(std::size_t{2} * 64, 'a');
    for (const std::size_t length : {64U, 65U}) {
        const std::string mail =
            fieldsOfAlice + encryptedTo({.key = true, .name = std::string(length, '\xaa')}, plainEntity);
        EXPECT_EQ(outcomeOf(mail).answer.layers.at(0).recipients.at(0).identifier, length == 64 ? cut : cut + "...");
    }
}

TEST(SMimeSecrets, RecipientsAreToldByTheirCertificates) {
    const Outcome outcome = outcomeOf(fieldsOfAlice + encryptedFor({&alice(), &bob()}, plainEntity));
    const SMime::Layer& layer = outcome.answer.layers.at(0);
    ASSERT_EQ(layer.recipients.size(), 2U);
    for (std::size_t at = 0; at != 2; ++at) {
        const Identity& one = at == 0 ? alice() : bob();
        EXPECT_THAT(layer.recipients[at].identifier, StartsWith("serial number " + one.serial + " of "));
        EXPECT_THAT(layer.recipients[at].algorithm, HasSubstr("rsaEncryption"));
        EXPECT_EQ(layer.recipients[at].opened, at == 1);
    }
    // Between two keys on a curve (RFC 5753).
    const Outcome agreed = outcomeOf(fieldsOfAlice + encryptedFor({&erin()}, plainEntity));
    EXPECT_THAT(agreed.answer.layers.at(0).recipients.at(0).identifier,
                StartsWith("serial number " + erin().serial + " of "));
    EXPECT_EQ(agreed.answer.detail, "part 1: there is no key for any recipient");
}

TEST(SMimeSecrets, AuthenticatedTextsGoToTheFolderForTemporaryFilesOnceTheyAreLong) {
    const std::string entity = "\r\n" + std::string(200000, 'x') + "\r\n";
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, entity, EVP_aes_256_gcm());
    const Keys keys({&bob()});
    SMime::ReadOptions options;
    options.keys = &keys;
    interop::Workspace workspace;
    options.spillTemplate = workspace.path("spillXXXXXX");
    setenv("TMPDIR", "/nonexistent/folder", 1);
    const Outcome outcome = outcomeOf(mail, options);
    unsetenv("TMPDIR");
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, entity);
    EXPECT_THAT(workspace.names(), ElementsAre());
}

// A disk that is full, or a folder that is not there: nothing of the message is wrong, nor the password.
TEST(SMimeSecrets, ThatAnAuthenticatedTextCannotBeKeptIsNoFaultOfTheMessage) {
    Held all = held();
    all.keys = std::make_unique<Keys>(std::vector<const Identity*>{&bob()});
    SMime::ReadOptions options = all.options(true, true);
    options.spillTemplate = "/nonexistent/folder/spillXXXXXX";
    for (const Readers& readers : {Readers{.person = &bob()}, Readers{.password = true}, Readers{.key = true}}) {
        const std::string mail =
            fieldsOfAlice + encryptedTo(readers, "\r\n" + std::string(200000, 'x') + "\r\n", EVP_aes_128_gcm());
        EXPECT_THROW(outcomeOf(mail, options), Norvane::MediaException);
    }
}

} // namespace
