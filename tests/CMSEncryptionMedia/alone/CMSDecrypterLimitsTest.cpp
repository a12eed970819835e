// What a message may cost whoever decrypts it, counted in private-key operations and in bytes of content decrypted.
#include "support/Decrypting.h"
#include "support/Interpose.h"

using namespace cmstest;

namespace {

std::size_t s_operations = 0;
std::size_t s_decrypted = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int EVP_PKEY_decrypt(EVP_PKEY_CTX* context, unsigned char* out,
                                                                       std::size_t* outLength, const unsigned char* in,
                                                                       std::size_t length) {
    s_operations += out == nullptr ? 0U : 1U;
    return norvtest::next<&EVP_PKEY_decrypt>("EVP_PKEY_decrypt")(context, out, outLength, in, length);
}
extern "C" __attribute__((visibility("default"))) int EVP_DecryptUpdate(EVP_CIPHER_CTX* context, unsigned char* out,
                                                                        int* count, const unsigned char* in,
                                                                        int length) {
    s_decrypted += static_cast<std::size_t>(length);
    return norvtest::next<&EVP_DecryptUpdate>("EVP_DecryptUpdate")(context, out, count, in, length);
}
// What PKCS7_decrypt comes to in the same counts. Random numbers come out of encryption.
extern "C" __attribute__((visibility("default"))) int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out,
                                                                       int* count, const unsigned char* in,
                                                                       int length) {
    s_decrypted += EVP_CIPHER_CTX_is_encrypting(context) == 0 ? static_cast<std::size_t>(length) : 0U;
    return norvtest::next<&EVP_CipherUpdate>("EVP_CipherUpdate")(context, out, count, in, length);
}

namespace {

constexpr unsigned int notTried = 0x300005F;

/// Content that no key decrypts: it is no whole number of blocks.
const Bytes& damaged() {
    static const Bytes content(100001, 7);
    return content;
}

Opened counted(const Bytes& structure, const NVX509::RefKeyStore& keys) {
    s_operations = 0;
    s_decrypted = 0;
    return openedBy(structure, keys);
}

/// Recipients of alice's key under serial numbers of their own, and what finds that key under each.
struct Names {
    std::vector<Bytes> recipients;
    std::vector<NVX509::KeyCertificatePair> pairs;
};
Names namesOfOneKey(int count) {
    Names names;
    for (int at = 0; at < count; ++at) {
        const std::string serial = std::to_string(100000 + at);
        const Identity person = norvauthority::issue({.subject = {{"CN", "alice"}},
                                                      .key = storedKey("alice"),
                                                      .issuer = &identities().authority,
                                                      .serial = serial,
                                                      .keyUsage = 0x20});
        names.recipients.push_back(recipientInfo(person, wrappedFor(person, contentKey())));
        names.pairs.push_back(pairOf(person));
    }
    return names;
}

NVX509::RefKeyStore alwaysCarol() {
    return storeOf(new Answering([] { return pairOf(carol()); }));
}

/// `count` recipients that nobody here has a key for.
std::vector<Bytes> strangers(int count) {
    std::vector<Bytes> recipients;
    for (int at = 0; at < count; ++at) {
        recipients.push_back(
            recipientInfo(identities().authority.name.der(), std::to_string(500000 + at), Bytes(256, 1)));
    }
    return recipients;
}

Bytes inCipher(const EVP_CIPHER* cipher, const Bytes& key, const Bytes& body) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    Bytes out(body.size() + 16);
    int count = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), cipher, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(EVP_CIPHER_CTX_set_key_length(context.get(), static_cast<int>(key.size())), 1);
    EXPECT_EQ(EVP_EncryptInit_ex(context.get(), nullptr, nullptr, key.data(), initializationVector().data()), 1);
    EXPECT_EQ(EVP_EncryptUpdate(context.get(), out.data(), &count, body.data(), static_cast<int>(body.size())), 1);
    out.resize(static_cast<std::size_t>(count));
    return out;
}

} // namespace

TEST(DecrypterLimits, ARecipientThatIsRepeatedIsTriedThreeTimes) {
    const std::vector<Bytes> recipients(1500, recipient(alice()));
    const RecordedLog log;
    s_operations = s_decrypted = 0;
    PiecewiseIn in(envelope({.recipients = recipients, .content = contentElement(damaged())}));
    CMS::DecrypterMediaIn decrypter(in, storeOfKeys({&alice()}));
    Norvane::NullMediaOut out;
    decrypter.write(out);
    EXPECT_EQ(s_operations, 3U);
    EXPECT_EQ(s_decrypted, 3 * damaged().size());
    EXPECT_EQ(decrypter.failed().size(), 1500U);
    ASSERT_EQ(log.events(), (Events{attemptFailed, attemptFailed, attemptFailed, notTried}));
    EXPECT_EQ(log.records().back().level, 0);
    EXPECT_EQ(log.records().back().fields, (std::vector<std::string>{"recipients not tried", "1497"}));
}

TEST(DecrypterLimits, TheStoreIsAskedThreeTimesForOneName) {
    const std::vector<Bytes> recipients(1500, recipient(alice()));
    Answering::s_asked = 0;
    counted(envelope({.recipients = recipients, .content = contentElement(damaged())}),
            storeOf(new Answering([] { return pairOf(alice()); })));
    EXPECT_EQ(Answering::s_asked, 3);
}

TEST(DecrypterLimits, TheThirdOfOneNameMayBeTheGoodOne) {
    const Bytes bad = recipientInfo(alice(), Bytes(256, 1));
    const Opened third = counted(handMade(bodyOf(1000), {bad, bad, recipient(alice())}), storeOfKeys({&alice()}));
    EXPECT_TRUE(third.good);
    EXPECT_EQ(s_operations, third.failed.size() + 1);
}

TEST(DecrypterLimits, ADozenTriesAMessageWhateverTheNames) {
    const Names names = namesOfOneKey(40);
    const Opened opened = counted(envelope({.recipients = names.recipients, .content = contentElement(damaged())}),
                                  storeOfPairs(names.pairs));
    EXPECT_FALSE(opened.good);
    EXPECT_EQ(s_operations, 12U);
    EXPECT_EQ(s_decrypted, 12 * damaged().size());
    EXPECT_EQ(opened.failed.size(), 40U);
    Events events(12, attemptFailed);
    events.push_back(notTried);
    EXPECT_EQ(opened.events, events);
}

// Missing keys and keys of other certificates cost nothing, and count for nothing.
TEST(DecrypterLimits, OnlyTriesCount) {
    std::vector<Bytes> recipients = strangers(200);
    recipients.insert(recipients.end(), 100, recipient(bob()));
    recipients.push_back(recipient(alice()));
    const Opened opened =
        counted(handMade(bodyOf(1000), recipients),
                storeOfPairs({NVX509::KeyCertificatePair(keyOf(carol()), certificateOf(bob())), pairOf(alice())}));
    EXPECT_TRUE(opened.good);
    EXPECT_EQ(s_operations, 1U);
    EXPECT_EQ(opened.failed.size(), 300U);
    EXPECT_EQ(opened.events.size(), 300U);
}

TEST(DecrypterLimits, AKeyOfAnotherNameGoesOverTheRecipientsOnce) {
    const Opened opened =
        counted(envelope({.recipients = strangers(60), .content = contentElement(damaged())}), alwaysCarol());
    EXPECT_FALSE(opened.good);
    EXPECT_EQ(s_operations, 60U);
    EXPECT_EQ(s_decrypted, damaged().size());
    EXPECT_EQ(opened.failed.size(), 60U);
    EXPECT_EQ(opened.events, Events(60, attemptFailed)) << "the result is known";
}

TEST(DecrypterLimits, KeysOfOtherNamesTakeAThousandOperations) {
    std::vector<Bytes> recipients = strangers(1200);
    recipients.insert(recipients.begin(),
                      recipientInfo(identities().authority.name.der(), "77", wrappedFor(carol(), contentKey())));
    const Opened opened = counted(handMade(bodyOf(100), recipients), alwaysCarol());
    EXPECT_EQ(opened.body, bodyOf(100)) << "the recipient that was asked for comes first";
    EXPECT_EQ(s_operations, 1000U);
}

TEST(DecrypterLimits, SeveralKeysOfOtherNamesShareTheThousand) {
    int turn = 0;
    const std::vector<NVX509::KeyCertificatePair> pairs{pairOf(alice()), pairOf(bob()), pairOf(carol())};
    const Opened opened = counted(envelope({.recipients = strangers(400), .content = contentElement(damaged())}),
                                  storeOf(new Answering([&] { return pairs[static_cast<std::size_t>(turn++) % 3]; })));
    EXPECT_EQ(s_operations, 1000U);
    EXPECT_EQ(s_decrypted, 3 * damaged().size());
    EXPECT_EQ(opened.failed.size(), 400U);
}

TEST(DecrypterLimits, AKeyOfTheRecipientsNameIsTriedBehindTheThousand) {
    std::vector<Bytes> recipients = strangers(1100);
    recipients.push_back(recipient(alice()));
    int turn = 0;
    const Opened opened =
        counted(envelope({.recipients = recipients, .content = contentElement(damaged())}),
                storeOf(new Answering([&] { return turn++ < 1100 ? pairOf(carol()) : pairOf(alice()); })));
    EXPECT_EQ(s_operations, 1001U);
    EXPECT_EQ(s_decrypted, 2 * damaged().size());
    EXPECT_EQ(opened.failed.size(), 1101U);
}

// A random content key, which stands for one that does not open, passes any cipher without padding.
TEST(DecrypterLimits, ACipherWithoutPaddingOpensWithNoRandomKey) {
    const Bytes body = bodyOf(1000);
    for (const char* cipher : {"AES-128-CFB", "AES-128-OFB", "RC4"}) {
        const Bytes parameters =
            der::sequence(std::string(cipher) == "RC4"
                              ? std::vector<Bytes>{der::oid(cipher)}
                              : std::vector<Bytes>{der::oid(cipher), der::octetString(initializationVector())});
        const Bytes content = inCipher(EVP_get_cipherbyname(cipher), contentKey(), body);
        const auto with = [&](const Bytes& wrapped) {
            return envelope({.recipients = {recipientInfo(alice(), wrapped)},
                             .cipher = parameters,
                             .content = contentElement(content)});
        };
        const Opened good = counted(with(wrappedFor(alice(), contentKey())), storeOfKeys({&alice()}));
        EXPECT_EQ(good.body, body) << cipher;
        const auto work = s_decrypted;
        EXPECT_EQ(work, body.size());
        for (const Bytes& wrapped :
             {Bytes(256, 1), Bytes(1, 1), wrappedFor(alice(), Bytes(15, 1)), wrappedFor(alice(), Bytes(17, 1))}) {
            const Opened bad = counted(with(wrapped), storeOfKeys({&alice()}));
            EXPECT_FALSE(bad.good) << cipher;
            EXPECT_EQ(bad.events, Events{attemptFailed});
            EXPECT_EQ(s_operations, 1U);
            EXPECT_EQ(s_decrypted, work) << "nobody learns by the work which step failed";
            EXPECT_EQ(bad.body.size(), body.size());
        }
    }
}
