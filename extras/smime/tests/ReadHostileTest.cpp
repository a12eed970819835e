// What a stranger may choose of a message: each ends in a clear answer.
#include "Mails.h"

#include <algorithm>
#include <random>

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

constexpr unsigned int detached = CMS_BINARY | CMS_CRLFEOL | CMS_DETACHED;

std::string repeated(const std::string& text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t done = 0; done < count; ++done)
        result += text;
    return result;
}

TEST(SMimeHostile, AHundredThousandParts) {
    const std::string mixed =
        "Content-Type: multipart/mixed; boundary=b\r\n\r\n" + repeated("--b\r\n\r\nx\r\n", 100000) + "--b--\r\n";
    const Outcome bare = outcomeOf(fieldsOfAlice + mixed);
    EXPECT_EQ(bare.answer.verdict, Verdict::notSMime);
    EXPECT_THAT(bare.answer.notCovered, SizeIs(1001));
    EXPECT_THAT(bare.answer.oddities, Contains(HasSubstr("more than 1000 parts")));

    // Within a signed part they are covered, whether they were looked at or not.
    const Outcome covered = outcomeOf(fieldsOfAlice + signedBy(alice(), mixed, detached));
    EXPECT_EQ(covered.answer.verdict, Verdict::signatureGood) << covered.answer.detail;
    EXPECT_EQ(covered.content, mixed);
    EXPECT_TRUE(covered.answer.notCovered.empty());
}

TEST(SMimeHostile, AHundredThousandLookAlikes) {
    const std::string entity = "\r\n" + repeated("--b-\r\n--bb\r\n", 50000);
    const std::string mail = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n" +
                             signedBy(alice(), entity, detached) + "\r\n--b--\r\n";
    const Outcome outcome = outcomeOf(fieldsOfAlice + mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, entity);
    EXPECT_THAT(outcome.answer.oddities, ElementsAre(HasSubstr("lines begin with the boundary")));
}

TEST(SMimeHostile, HeadersWithoutEnd) {
    for (const std::string& fields :
         {repeated("X: y\r\n", 100000), "Subject: " + repeated("xxxxxxxxxx", 1000000) + "\r\n",
          repeated("xxxxxxxxxx", 1000000)}) {
        const Outcome outcome = outcomeOf(fields + signedBy(alice(), plainEntity, detached));
        EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
        EXPECT_THAT(outcome.answer.detail, HasSubstr("a header of more than"));
        // Within a signed part nothing is handed on of what was not looked at.
        const std::string entity = std::string(fields).append("\r\nx");
        const Outcome inner = outcomeOf(std::string(fieldsOfAlice).append(signedBy(alice(), entity, detached)));
        EXPECT_EQ(inner.answer.verdict, Verdict::tooCostly) << inner.answer.detail;
        EXPECT_EQ(inner.content, "");
    }
}

TEST(SMimeHostile, AThousandLevels) {
    std::string mixed;
    std::string messages;
    for (int level = 0; level < 1000; ++level) {
        const std::string boundary = std::to_string(level);
        mixed.append("Content-Type: multipart/mixed; boundary=").append(boundary).append("\r\n\r\n--");
        mixed.append(boundary).append("\r\n");
        messages += "Content-Type: message/rfc822\r\n\r\n";
    }
    const Outcome outcome = outcomeOf(fieldsOfAlice + mixed);
    EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime);
    EXPECT_THAT(outcome.answer.oddities, Contains(HasSubstr("deeper than the budget")));
    EXPECT_EQ(outcomeOf(fieldsOfAlice + messages).answer.layers.size(), 25U);
    const Outcome inside = outcomeOf(fieldsOfAlice + signedBy(alice(), messages, detached));
    EXPECT_EQ(inside.answer.verdict, Verdict::signatureGood) << inside.answer.detail;
    EXPECT_EQ(inside.content, messages);
}

TEST(SMimeHostile, LayersOfTheContentBeyondTheBudget) {
    std::string entity = plainEntity;
    for (int level = 0; level < 18; ++level)
        entity = signedBy(alice(), entity, detached);
    const Outcome outcome = outcomeOf(fieldsOfAlice + entity);
    EXPECT_EQ(outcome.answer.verdict, Verdict::tooCostly);
    EXPECT_THAT(outcome.answer.detail, HasSubstr("more than 16 structures"));
    EXPECT_THAT(outcome.answer.layers, SizeIs(17));
    EXPECT_EQ(outcome.content, "");
}

/// Counts how often it was asked for a key.
class CountingKeys : public CMS::KeyLookup {
public:
    [[nodiscard]] NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier& name) const override {
        ++asked;
        return m_keys.find(name);
    }
    mutable int asked = 0;

private:
    Keys m_keys{{&bob()}};
};

TEST(SMimeHostile, ManyEncryptedPartsCostNoMoreThanTheBudget) {
    const std::string part = "--b\r\n" + encryptedFor({&bob()}, plainEntity) + "\r\n";
    const std::string mail =
        fieldsOfAlice + "Content-Type: multipart/mixed; boundary=b\r\n\r\n" + repeated(part, 500) + "--b--\r\n";
    const CountingKeys keys;
    SMime::ReadOptions options;
    options.keys = &keys;
    const Outcome outcome = outcomeOf(mail, options);
    EXPECT_EQ(keys.asked, 16);
    EXPECT_EQ(outcome.answer.verdict, Verdict::decrypted);
    EXPECT_EQ(outcome.content, plainEntity);
    EXPECT_THAT(outcome.answer.notCovered, SizeIs(499));
}

TEST(SMimeHostile, EveryTruncationHasAnAnswer) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    const std::string mail = fieldsOfAlice + signedBy(bob(), encryptedFor({&bob()}, inner), detached);
    for (std::size_t length = 0; length < mail.size(); length += 97) {
        const Outcome outcome = outcomeOf(mail.substr(0, length));
        EXPECT_NE(outcome.answer.verdict, Verdict::decrypted) << length;
        const bool isWhole = length > mail.size() - 60; // the last delimiter alone is missing
        EXPECT_TRUE(isWhole || outcome.answer.verdict != Verdict::signatureGood) << length;
        EXPECT_FALSE(outcome.answer.detail.empty()) << length;
    }
}

// What is in the way of a layer is told, and of nothing else.
TEST(SMimeHostile, LayersThatAreCutOffTellWhy) {
    const std::string inner = signedBy(alice(), plainEntity, detached);
    const std::string longEntity = "\r\n" + std::string(3000, 'x') + "\r\n";
    for (const std::string& mail :
         {signedBy(alice(), longEntity, CMS_BINARY | CMS_CRLFEOL), signedBy(alice(), longEntity, detached),
          encryptedFor({&bob()}, inner), encryptedFor({&bob()}, longEntity),
          encryptedFor({&bob()}, longEntity, EVP_aes_256_gcm())}) {
        std::size_t told = 0;
        for (std::size_t length = 0; length < mail.size(); length += 61) {
            const Outcome outcome = outcomeOf(fieldsOfAlice + mail.substr(0, length));
            for (const SMime::Layer& layer : outcome.answer.layers)
                EXPECT_EQ(layer.detail.empty(), layer.status == LayerStatus::good) << length << ' ' << layer.path;
            told += outcome.answer.layers.empty() ? 0U : 1U;
        }
        EXPECT_GT(told, mail.size() / 61 / 2);
    }
}

/// Gives a few bytes at a time.
class DrippingIn : public Norvane::MediaInImpl {
public:
    DrippingIn(const std::string& text, unsigned int step) : m_in(text), m_step(step) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_in.atEnd(); }
    [[nodiscard]] int peek() const override { return m_in.peek(); }
    int read(unsigned char* out, unsigned int length) override { return m_in.read(out, std::min(length, m_step)); }

private:
    Norvane::MemoryMediaIn m_in;
    unsigned int m_step;
};

/// Changes a text in a few places: bytes, lines left out, repeated and exchanged.
std::string changed(std::string text, std::mt19937& random) {
    const auto below = [&](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    for (std::size_t change = below(4) + 1; change > 0; --change) {
        const std::size_t at = below(text.size());
        const std::size_t line = text.rfind('\n', at) == std::string::npos ? 0 : text.rfind('\n', at) + 1;
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        switch (below(5)) {
        case 0:
            text[at] = static_cast<char>(below(256));
            break;
        case 1:
            text.erase(line, end - line);
            break;
        case 2:
            text.insert(line, text.substr(line, end - line));
            break;
        case 3:
            text.insert(below(text.size()), text.substr(line, end - line));
            break;
        default:
            text.erase(at, below(20));
        }
        if (text.empty())
            text = "\n";
    }
    return text;
}

// Whatever was done to a message, it comes to the same in any pieces, and nothing from outside its layers is handed on.
TEST(SMimeHostile, ChangedMessagesComeToTheSameInAnyPieces) {
    const std::string inner = "Content-Type: multipart/mixed; boundary=in\r\n\r\n--in\r\n\r\none\r\n--in\r\n"
                              "Content-Type: message/rfc822\r\n\r\nFrom: x@y.z\r\n\r\ntwo\r\n--in--\r\n";
    const std::string mail = fieldsOfAlice +
                             "Content-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\n\r\nOUTSIDE\r\n--out\r\n" +
                             signedBy(alice(), inner, detached) + "\r\n--out\r\n" +
                             signedBy(alice(), plainEntity, CMS_BINARY | CMS_CRLFEOL) + "\r\n--out--\r\n";
    std::mt19937 random(4711);
    for (int round = 0; round < 100; ++round) {
        const std::string text = changed(mail, random);
        const Outcome whole = outcomeOf(text, {});
        Norvane::MemoryMediaOut content;
        const auto step = static_cast<unsigned int>(round % 50 + 1);
        const Answer pieces = SMime::read(
            Norvane::MediaIn(Norvane::makeReference<DrippingIn, Norvane::MediaInImpl>(text, step)), content, {});
        EXPECT_EQ(whole.answer.verdict, pieces.verdict) << text;
        EXPECT_EQ(layersOf(whole.answer), layersOf(pieces)) << text;
        EXPECT_EQ(pathsOf(whole.answer.notCovered), pathsOf(pieces.notCovered)) << text;
        EXPECT_EQ(whole.content,
                  std::string(reinterpret_cast<const char*>(content.content().data()), content.content().length()));
        const bool isGood = whole.answer.verdict == Verdict::signatureGood;
        EXPECT_TRUE(!isGood || whole.content == inner || whole.content == plainEntity) << text;
    }
}

TEST(SMimeHostile, EncryptedPartsThatAreCutOffAreDamaged) {
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, "\r\n" + std::string(10000, 'x'));
    const Outcome outcome = outcomeOf(mail.substr(0, mail.size() - 200));
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
    EXPECT_EQ(outcome.answer.layers.front().status, LayerStatus::damaged);
}

// A signed text whose beginning is damaged is no message without a signature.
TEST(SMimeHostile, SignedPartsThatAreCutOffInFrontOfTheirContentAreDamaged) {
    const std::string mail = fieldsOfAlice + signedBy(alice(), plainEntity, CMS_BINARY | CMS_CRLFEOL);
    const std::size_t body = mail.find("\r\n\r\n") + 4;
    const Outcome outcome = outcomeOf(mail.substr(0, body + 44)); // of base64: 33 octets
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("opaque-signed 1 damaged"));
    EXPECT_TRUE(outcome.answer.layers.at(0).coversContent);
    EXPECT_EQ(outcome.content, "");
}

TEST(SMimeHostile, AMissingLastBoundaryIsTold) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::string mail = fieldsOfAlice + entity.substr(0, entity.rfind("--", entity.rfind("--") - 5));
    const Outcome outcome = outcomeOf(mail);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_THAT(outcome.answer.oddities, ElementsAre(HasSubstr("last boundary")));
}

/// A folder for temporary files that is gone, as in services whose environment is old: nothing has to be kept in a file here.
TEST(SMimeRead, ShortMessagesNeedNoFolderForTemporaryFiles) {
    setenv("TMPDIR", "/nonexistent/folder", 1);
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, signedBy(alice(), plainEntity, detached));
    EXPECT_NO_THROW(EXPECT_EQ(outcomeOf(mail).answer.verdict, Verdict::signatureGood));
    unsetenv("TMPDIR");
}

TEST(SMimeHostile, GarbageInBase64IsLeftOut) {
    const std::string mail = fieldsOfAlice + encryptedFor({&bob()}, plainEntity);
    const Outcome outcome = outcomeOf(replaced(mail, "\r\n\r\nMI", "\r\n\r\n!*M\xff I\t"));
    EXPECT_EQ(outcome.content, plainEntity) << outcome.answer.detail;
    const Outcome none = outcomeOf(fieldsOfAlice + "Content-Type: application/pkcs7-mime\r\n"
                                                   "Content-Transfer-Encoding: base64\r\n\r\n!!!!");
    EXPECT_EQ(none.answer.verdict, Verdict::damaged);
    EXPECT_THAT(none.answer.detail, HasSubstr("no CMS structure"));
}

TEST(SMimeHostile, BoundariesThatAreMissingOrTooLong) {
    const std::string protocol = "Content-Type: multipart/signed; protocol=\"application/pkcs7-signature\"";
    EXPECT_EQ(outcomeOf(protocol + "\r\n\r\n--\r\n").answer.verdict, Verdict::damaged);
    const std::string longOne(201, 'b');
    EXPECT_EQ(outcomeOf(protocol + "; boundary=" + longOne + "\r\n\r\n--" + longOne + "\r\n").answer.verdict,
              Verdict::damaged);
}

class FailingOut : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* /*data*/, unsigned int /*length*/) override {
        throw Norvane::MediaException("the disk is full", 4, "Test", 1);
    }
};

class FailingKeys : public CMS::KeyLookup {
public:
    [[nodiscard]] NVX509::KeyCertificatePair find(const CMS::CertificateIdentifier& /*name*/) const override {
        throw Norvane::MediaException("the key store is away", 4, "Test", 1);
    }
};

std::string thrownBy(const Norvane::MediaIn& in, Norvane::MediaOut out, const CMS::KeyLookup& keys) {
    SMime::ReadOptions options;
    options.keys = &keys;
    try {
        static_cast<void>(SMime::read(in, out, options));
    } catch (const Norvane::MediaException& failure) {
        return failure.where();
    }
    return "";
}

// What the caller's own streams and keys throw is no fault of the message.
TEST(SMimeRead, FailuresOfTheCallersPassThroughAllLayers) {
    const std::string mail =
        fieldsOfAlice +
        signedBy(alice(), encryptedFor({&bob()}, signedBy(alice(), plainEntity, CMS_BINARY)), CMS_BINARY);
    const Keys keys({&bob()});
    const Norvane::MemoryMediaIn in(mail);
    const Norvane::MediaIn failing(Norvane::makeReference<FailingIn, Norvane::MediaInImpl>(mail));
    EXPECT_EQ(thrownBy(failing, Norvane::NullMediaOut(), keys), "the line broke");
    const Norvane::MediaOut full(Norvane::makeReference<FailingOut, Norvane::MediaOutImpl>());
    EXPECT_EQ(thrownBy(in, full, keys), "the disk is full");
    EXPECT_EQ(thrownBy(Norvane::MemoryMediaIn(mail), Norvane::NullMediaOut(), FailingKeys()), "the key store is away");
}

} // namespace
