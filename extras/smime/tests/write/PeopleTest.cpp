// Who signs and who reads: by certificate and by address.

#include "Writing.h"

namespace {

using namespace smimetest;
using testing::HasSubstr;

// In a process in which nothing else read an address before.
TEST(SmimeFirstPersonTest, MayBeOfADomainOfAnotherScript) {
    SMime::EncryptOptions options;
    options.keys = NVX509::RefKeyStore(true);
    options.addresses = {EmailAddress::rfc5321Parse("bob@b\u00fccher.example", true)};
    EXPECT_EQ(refusalOf("\nx\n", {options}), "there is no certificate for bob@b\u00fccher.example");
}

/// Keys by address.
class Keys : public NVX509::KeyStorePlugin {
public:
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/,
                                    const ASN1::Integer& /*serial*/) override {
        return NVX509::KeyCertificatePair(true);
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& address) override {
        asked.push_back(address.address());
        const auto found = people.find(address.address());
        return found == people.end() ? NVX509::RefCertificate() : certificateOf(*found->second);
    }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& address) override {
        asked.push_back(address.address());
        const auto found = people.find(address.address());
        return found == people.end() ? NVX509::KeyCertificatePair(true) : pairOf(*found->second);
    }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override {
        return NVX509::KeyCertificatePair(true);
    }

    std::map<std::string, const Identity*> people{{"alice@example.com", &person("alice")},
                                                  {"bob@example.com", &person("bob")},
                                                  {"carol@example.com", &person("carol")}};
    std::vector<std::string> asked;
};

class SmimePeopleTest : public testing::Test {
protected:
    SmimePeopleTest() : m_store(true), m_keys(new Keys) {
        m_store->add(NVX509::RefKeyStorePlugin(m_keys));
        m_signing.keys = m_store;
        m_encrypting.keys = m_store;
        m_encrypting.addressesOfMessage = true;
    }

    std::string m_body = "\nx\n";
    NVX509::RefKeyStore m_store;
    Keys* m_keys;
    SMime::SignOptions m_signing;
    SMime::EncryptOptions m_encrypting;
};

TEST_F(SmimePeopleTest, FindsTheSenderInTheMessage) {
    for (const char* const from :
         {"alice@example.com", "Alice <alice@example.com>", "=?utf-8?q?A=2C_B?= <alice@example.com>",
          "\"eve@example.com\" <alice@example.com>", "(c) alice@example.com (d)", "Alice\n <alice@example.com>"}) {
        verified(wrapped(std::string("From: ") + from + "\n" + m_body, {m_signing}));
        EXPECT_EQ(m_keys->asked, std::vector<std::string>{"alice@example.com"}) << from;
        m_keys->asked.clear();
    }
    verified(wrapped("From: eve@example.com, dora@example.com\nSender: alice@example.com\n" + m_body, {m_signing}));
    m_signing.from = EmailAddress::rfc5321Parse("bob@example.com", false);
    EXPECT_THAT(wrapped("From: eve@example.com\n" + m_body, {m_signing}), HasSubstr("multipart/signed"));
    EXPECT_EQ(m_keys->asked, (std::vector<std::string>{"alice@example.com", "bob@example.com"}));
}

TEST_F(SmimePeopleTest, TakesSignsInNamesAndRemarksForWhatTheyAre) {
    for (const char* const name : {"\"a@b@c\" <", "(a@b@c) <", "\"<a@b>, c@d\" <", "x (a, b@c) <"}) {
        const std::string address = std::string(name) + "bob@example.com>";
        decrypted(wrapped("To: " + address + "\n" + m_body, {m_encrypting}), person("bob"));
    }
    for (const char* const to : {"bob@example.com@evil.example", "bob@@example.com", "<bob@example.com@evil.example>",
                                 "Bob <bob@example.com>@evil.example", "x@bob@example.com, bob@example.com",
                                 "alice@example.com bob@example.com", "bob@example.com (x", "bob@example.com \"x"}) {
        EXPECT_EQ(refusalOf(std::string("To: ") + to + "\n" + m_body, {m_encrypting}),
                  std::string("To, Cc or Bcc of the message have what is no address: ") + to);
        EXPECT_EQ(refusalOf(std::string("From: ") + to + "\n" + m_body, {m_signing}),
                  "the From of the message is no address");
        const SMime::Correspondents people =
            SMime::correspondentsOf(MemoryMediaIn(std::string("From: ") + to + "\n\n"));
        EXPECT_TRUE(people.from.empty()) << to;
        EXPECT_THAT(people.noAddresses, testing::ElementsAre(to));
    }
}

TEST_F(SmimePeopleTest, SaysWhyNobodySigns) {
    EXPECT_EQ(refusalOf("Sender: alice@example.com\n" + m_body, {m_signing}), "the message has no From");
    EXPECT_EQ(refusalOf("Subject: x\n" + m_body, {m_signing}), "the message has no From");
    EXPECT_EQ(refusalOf("From: undisclosed:;\n" + m_body, {m_signing}), "the From of the message is no address");
    EXPECT_EQ(refusalOf("From: Alice\n" + m_body, {m_signing}), "the From of the message is no address");
    EXPECT_EQ(refusalOf("From: alice@example.com, eve\n" + m_body, {m_signing}),
              "the From of the message is no address");
    EXPECT_EQ(refusalOf("From: alice@example.com@evil.example\n" + m_body, {m_signing}),
              "the From of the message is no address");
    const std::string several = "the message has several From addresses and no Sender: say who signs";
    EXPECT_EQ(refusalOf("From: alice@example.com, bob@example.com\n" + m_body, {m_signing}), several);
    EXPECT_EQ(refusalOf("From: alice@example.com\nFrom: bob@example.com\n" + m_body, {m_signing}), several);
    EXPECT_EQ(refusalOf("From: eve@example.com\n" + m_body, {m_signing}),
              "there is no key to sign with for eve@example.com");
    EXPECT_EQ(refusalOf("From: alice@example.com\n" + m_body, {SMime::SignOptions()}),
              "there is nobody to sign: no signer was given, and no store to find the sender in");
}

/// The writer of signatures tells which of several it is.
TEST_F(SmimePeopleTest, SignersHaveAKeyAndACertificate) {
    for (const bool isPair : {false, true}) {
        SMime::SignOptions options = signedBy({&person("alice")});
        options.signers.emplace_back(NVX509::KeyCertificatePair(isPair));
        const Exception thrown = norvtest::thrownBy([&] { wrapped(m_body, {options}); });
        EXPECT_EQ(thrown.where(), "CMS::SignedWriter");
        EXPECT_THAT(norvtest::detailOf(thrown), testing::StartsWith("signer 2: "));
    }
}

TEST_F(SmimePeopleTest, EncryptsToAllWhomTheMessageNames) {
    const std::string sent = wrapped("From: alice@example.com\nTo: Group: bob@example.com, Bob <bob@example.com>;\n"
                                     "Cc: carol@example.com,\n" +
                                         m_body,
                                     {m_encrypting});
    decrypted(sent, person("bob"));
    decrypted(sent, person("carol"));
    EXPECT_EQ(m_keys->asked, (std::vector<std::string>{"bob@example.com", "carol@example.com"}));
    m_encrypting.sender = true;
    decrypted(wrapped("From: alice@example.com\nBcc: bob@example.com\n" + m_body, {m_encrypting}), person("alice"));
}

/// A domain of another script: the message has it in one way, the store in another.
TEST_F(SmimePeopleTest, FindsDomainsInBothOfTheirSpellings) {
    for (const char* const stored : {"bob@xn--bcher-kva.example", "bob@b\u00fccher.example"}) {
        m_keys->people = {{stored, &person("bob")}};
        for (const char* const written :
             {"bob@xn--bcher-kva.example", "bob@b\u00fccher.example", "Bob <bob@XN--Bcher-Kva.example>",
              "bob@B\u00dcCHER.example", "group: bob@b\u00fccher.example;"}) {
            verified(wrapped(std::string("From: ") + written + "\n" + m_body, {m_signing}));
            decrypted(wrapped(std::string("To: ") + written + "\n" + m_body, {m_encrypting}), person("bob"));
        }
        m_signing.from = EmailAddress::rfc5321Parse("bob@B\u00fccher.example", true);
        verified(wrapped(m_body, {m_signing}));
        m_signing.from.reset();
        m_keys->asked.clear();
        EXPECT_EQ(refusalOf("From: Bob@b\u00fccher.example\n" + m_body, {m_signing}),
                  "there is no key to sign with for Bob@b\u00fccher.example")
            << "local parts byte by byte";
        EXPECT_EQ(m_keys->asked, (std::vector<std::string>{"Bob@b\u00fccher.example", "Bob@xn--bcher-kva.example"}))
            << "for each once";
    }
    m_keys->asked.clear();
    m_keys->people = {{"bob@example.com", &person("bob")}};
    decrypted(wrapped("To: bob@example.com\n" + m_body, {m_encrypting}), person("bob"));
    EXPECT_EQ(m_keys->asked, std::vector<std::string>{"bob@example.com"}) << "others are asked for once";
}

TEST_F(SmimePeopleTest, NamesEveryRecipientWithoutACertificate) {
    EXPECT_EQ(refusalOf("To: eve@example.com, bob@example.com\nCc: mallory@example.org\n" + m_body, {m_encrypting}),
              "there is no certificate for eve@example.com, mallory@example.org");
    EXPECT_EQ(refusalOf("To: bob@example.com, nobody\n" + m_body, {m_encrypting}),
              "To, Cc or Bcc of the message have what is no address: nobody");
    // Nobody is left out in silence.
    for (const char* const to : {"bob@example.com; eve@example.com", "eve@example.com (, bob@example.com",
                                 "bob@example.com [eve@example.com]", "bob@example.com\" , eve@example.com"})
        EXPECT_EQ(refusalOf(std::string("To: ") + to + "\n" + m_body, {m_encrypting}),
                  std::string("To, Cc or Bcc of the message have what is no address: ") + to);
    EXPECT_EQ(refusalOf("Subject: x\n" + m_body, {m_encrypting}), "there is nobody to encrypt to");
    EXPECT_EQ(refusalOf("Subject: x\n" + m_body, {SMime::EncryptOptions()}), "there is nobody to encrypt to");
    const std::string longName(300, 'x');
    EXPECT_EQ(refusalOf("To: <" + longName + "@\n" + m_body, {m_encrypting}),
              "To, Cc or Bcc of the message have what is no address: <" + longName.substr(0, 199));
    SMime::EncryptOptions storeless;
    storeless.addressesOfMessage = true;
    EXPECT_EQ(refusalOf("To: bob@example.com\n" + m_body, {storeless}), "there is no store to find the recipients in");
    m_encrypting.keys = NVX509::RefKeyStore(false);
    EXPECT_EQ(refusalOf("To: bob@example.com\n" + m_body, {m_encrypting}),
              "there is no store to find the recipients in");
    m_encrypting.certificates.emplace_back();
    m_encrypting.addressesOfMessage = false;
    EXPECT_EQ(refusalOf(m_body, {m_encrypting}), "the certificate of a recipient is an empty handle");
}

TEST_F(SmimePeopleTest, BoundsRecipients) {
    SMime::WriteOptions how;
    how.budget.recipients = 1;
    EXPECT_EQ(refusalOf("To: bob@example.com, carol@example.com\n" + m_body, {m_encrypting}, how),
              "the message has more than 1 recipients");
    how.budget.recipients = 2;
    decrypted(wrapped("To: bob@example.com, carol@example.com\n" + m_body, {m_encrypting}, how), person("carol"));
}

TEST_F(SmimePeopleTest, TakesNoMoreGroupsThanTheStackHasRoomFor) {
    std::string groups = "To: ";
    for (int at = 0; at < 120000; ++at) {
        groups += "a:";
    }
    EXPECT_THAT(refusalOf(groups + "\n" + m_body, {m_encrypting}),
                testing::StartsWith("To, Cc or Bcc of the message have what is no address: a:a:"));
    const auto colons = [](std::size_t count) { return "To: \"" + std::string(count, ':') + "\" <bob@example.com>\n"; };
    decrypted(wrapped(colons(1000) + m_body, {m_encrypting}), person("bob"));
    EXPECT_THAT(refusalOf(colons(1001) + m_body, {m_encrypting}), HasSubstr("what is no address"));
    // Inside, where fields are encoded, too.
    SMime::WriteOptions how;
    how.protectHeader = true;
    EXPECT_THAT(wrapped(groups + "\xc3\xa4\n" + m_body, {signedBy({&person("alice")})}, how),
                HasSubstr("hp=\"clear\""));
}

/// For each of them GMime goes through all that is left of the field.
TEST_F(SmimePeopleTest, TakesNoMoreWordsThatAreNoAddresses) {
    const auto words = [](int count) {
        std::string field = "To: bob@example.com";
        for (int at = 0; at < count; ++at) {
            field += ",a";
        }
        return field;
    };
    const std::string refusal = "To, Cc or Bcc of the message have what is no address: ";
    EXPECT_EQ(refusalOf(words(100) + "\n" + m_body, {m_encrypting}), refusal + "a");
    EXPECT_EQ(refusalOf(words(101) + "\n" + m_body, {m_encrypting}), refusal + words(101).substr(4, 200));
    EXPECT_EQ(refusalOf(words(100000) + "\n" + m_body, {m_encrypting}), refusal + words(101).substr(4, 200));
    // Names of groups are none of them, nor is what stands between two commas.
    std::string many = "To: bob@example.com";
    for (int at = 0; at < 200; ++at) {
        many += ",, g:;";
    }
    decrypted(wrapped(many + "\n" + m_body, {m_encrypting}), person("bob"));
    // Inside, where fields are encoded, too.
    SMime::WriteOptions how;
    how.protectHeader = true;
    const auto inside = [&](const std::string& field) {
        return wrapped(field + "\n" + m_body, {signedBy({&person("alice")})}, how);
    };
    EXPECT_THAT(inside(words(100000) + ",\xc3\xa4"), HasSubstr("hp=\"clear\""));
    EXPECT_THAT(inside(words(101) + ",\xc3\xa4,c@d@e"), HasSubstr("hp=\"clear\""));
}

const Identity& late() {
    return person("late", {.key = norvauthority::Key::fromPem(norvtest::storedKeyPem("carol")),
                           .notBefore = norvauthority::Time::at(1767225600),  // 2026-01-01T00:00:00Z
                           .notAfter = norvauthority::Time::at(1769860800)}); // 2026-01-31T12:00:00Z
}

TEST_F(SmimePeopleTest, RefusesCertificatesOutOfTheirTime) {
    SMime::WriteOptions how;
    how.at = 1769860801;
    const std::string expired = "the certificate of CN=late expired on 2026-01-31T12:00:00Z";
    EXPECT_EQ(refusalOf(m_body, {signedBy({&late()})}, how), expired);
    EXPECT_EQ(refusalOf(m_body, {encryptedFor({&late()})}, how), expired);
    how.at = 1769860800;
    EXPECT_THAT(wrapped(m_body, {signedBy({&late()})}, how), HasSubstr("multipart/signed"));
    how.at = 1767225599;
    EXPECT_EQ(refusalOf(m_body, {signedBy({&late()})}, how),
              "the certificate of CN=late is not valid before 2026-01-01T00:00:00Z");
    m_keys->people["alice@example.com"] = &late();
    EXPECT_EQ(refusalOf("From: alice@example.com\n" + m_body, {m_signing}, how),
              "the certificate of CN=late is not valid before 2026-01-01T00:00:00Z");
}

TEST_F(SmimePeopleTest, RefusesCertificatesForOtherUses) {
    const auto key = [] { return norvauthority::Key::fromPem(norvtest::storedKeyPem("bob")); };
    const Identity& signs = person("signs", {.key = key(), .keyUsage = 0x40});
    const Identity& reads = person("reads", {.key = key(), .keyUsage = 0x20});
    const Identity& serves = person("serves", {.key = key(), .extendedKeyUsage = {"serverAuth"}});
    const Identity& mails = person("mails", {.key = key(), .extendedKeyUsage = {"serverAuth", "emailProtection"}});
    const Identity& curve = person("curve", {.key = norvauthority::Key::ec(), .keyUsage = 0x80});
    EXPECT_EQ(refusalOf(m_body, {signedBy({&reads})}),
              "the certificate of CN=reads does not allow signing: its key usage has "
              "neither digitalSignature nor nonRepudiation");
    EXPECT_EQ(refusalOf(m_body, {encryptedFor({&signs})}),
              "the certificate of CN=signs does not allow encryption: its key usage has no keyEncipherment");
    EXPECT_EQ(refusalOf(m_body, {encryptedFor({&curve})}),
              "the certificate of CN=curve does not allow encryption: its key usage has no keyAgreement");
    EXPECT_EQ(
        refusalOf(m_body, {signedBy({&serves})}),
        "the certificate of CN=serves does not allow signing of mail: its extended key usage has no emailProtection");
    EXPECT_EQ(refusalOf(m_body, {encryptedFor({&serves})}),
              "the certificate of CN=serves does not allow encryption of mail: its extended key usage has no "
              "emailProtection");
    verified(wrapped(m_body, {signedBy({&signs})}));
    decrypted(wrapped(m_body, {encryptedFor({&reads})}), reads);
    decrypted(wrapped(m_body, {encryptedFor({&mails})}), mails);
}

TEST_F(SmimePeopleTest, ReadsAddressesAmongAThousandColons) {
    for (const std::size_t colons : {1000U, 1001U}) {
        const std::string to = '"' + std::string(colons, ':') + "\" <bob@example.com>";
        const SMime::Correspondents people = SMime::correspondentsOf(MemoryMediaIn("To: " + to + "\n\n"));
        EXPECT_EQ(people.to.size(), colons == 1000 ? 1U : 0U);
        EXPECT_EQ(people.noAddresses, colons == 1000 ? std::vector<std::string>() : std::vector{to.substr(0, 200)});
    }
}

TEST_F(SmimePeopleTest, TellsTheAddressesOfAMessage) {
    const SMime::Correspondents people = SMime::correspondentsOf(MemoryMediaIn(
        "from: A <a@example.com>\nSENDER: b@example.com\nTo: c@example.com, X: d@example.com;, odd\nCc: e@example.com\n"
        "Bcc: <f@example.com>\nReply-To: g@example.com\n\nTo: h@example.com\n"));
    const auto texts = [](const std::vector<EmailAddress>& addresses) {
        std::vector<std::string> all;
        all.reserve(addresses.size());
        for (const EmailAddress& address : addresses) {
            all.push_back(address.address());
        }
        return all;
    };
    EXPECT_THAT(texts(people.from), testing::ElementsAre("a@example.com"));
    EXPECT_THAT(texts(people.sender), testing::ElementsAre("b@example.com"));
    EXPECT_THAT(texts(people.to),
                testing::ElementsAre("c@example.com", "d@example.com", "e@example.com", "f@example.com"));
    EXPECT_THAT(people.noAddresses, testing::ElementsAre("odd"));
}

} // namespace
