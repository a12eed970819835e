// What the writer writes, the reader of this library reads.

#include "Writing.h"

#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto/CMSEnvelopeReader.h>

namespace {

using namespace smimetest;
using SMime::HeaderScheme;
using SMime::LayerKind;
using SMime::Verdict;

const std::string mail = "From: Alice <alice@example.com>\nTo: bob@example.com\nSubject: Lunch\n"
                         "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain; charset=utf-8\n\n"
                         "At noon in the caf\xc3\xa9?\n\n--b\n\nNo header.\n--b--\n";
const std::string body =
    "--b\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n"
    "\r\nAt noon in the caf=C3=A9?\r\n\r\n--b\r\n\r\nNo header.\r\n--b--\r\n";

struct Read {
    SMime::Answer answer;
    std::string content;
};

Read readBy(const std::string& text, const Identity& reader) {
    const CMS::KeyListLookup keys({pairOf(reader)});
    SMime::ReadOptions options;
    options.keys = &keys;
    MemoryMediaOut content;
    Read result{SMime::read(MemoryMediaIn(text), content, options), {}};
    result.content = norvtest::textOf(content.content());
    return result;
}

std::vector<LayerKind> kindsOf(const SMime::Answer& answer) {
    std::vector<LayerKind> kinds;
    for (const SMime::Layer& layer : answer.layers) {
        EXPECT_EQ(layer.status, SMime::LayerStatus::good) << layer.detail;
        kinds.push_back(layer.kind);
    }
    return kinds;
}

struct Shells {
    std::vector<SMime::Wrapping> shells;
    std::vector<LayerKind> kinds; ///< from the outside
};

std::vector<Shells> all() {
    SMime::EncryptOptions authenticated = encryptedFor({&person("bob")});
    authenticated.cipher = CMS::ContentCipher::aes256Gcm;
    const SMime::EncryptOptions enveloped = encryptedFor({&person("carol"), &person("bob")});
    const SMime::SignOptions beside = signedBy({&person("alice"), &person("carol")});
    const SMime::SignOptions inside = opaquelySignedBy(person("alice"));
    return {{{beside}, {LayerKind::multipartSigned}},
            {{inside}, {LayerKind::opaqueSigned}},
            {{enveloped}, {LayerKind::enveloped}},
            {{authenticated}, {LayerKind::authEnveloped}},
            {{beside, enveloped}, {LayerKind::enveloped, LayerKind::multipartSigned}},
            {{inside, authenticated}, {LayerKind::authEnveloped, LayerKind::opaqueSigned}},
            {{beside, enveloped, inside}, {LayerKind::opaqueSigned, LayerKind::enveloped, LayerKind::multipartSigned}}};
}

TEST(SmimeRoundTripTest, GivesBackWhatWasWritten) {
    for (const Shells& one : all()) {
        for (const auto lineEnds : {SMime::LineEnds::crlf, SMime::LineEnds::lf}) {
            SMime::WriteOptions how;
            how.lineEnds = lineEnds;
            const Read read = readBy(wrapped(mail, one.shells, how), person("bob"));
            EXPECT_EQ(kindsOf(read.answer), one.kinds);
            const bool isSigned =
                std::ranges::any_of(one.shells, [](const SMime::Wrapping& shell) { return shell.index() == 0; });
            EXPECT_EQ(read.answer.verdict, isSigned ? Verdict::signatureGood : Verdict::decrypted)
                << read.answer.detail;
            // The reader hands on what is beside a signature as it stands.
            const bool asItStands =
                one.kinds == std::vector{LayerKind::multipartSigned} && lineEnds == SMime::LineEnds::lf;
            const std::string expected = "Content-Type: multipart/mixed; boundary=b\r\n\r\n" + body;
            EXPECT_EQ(read.content, asItStands ? withLf(expected) : expected);
            EXPECT_EQ(read.answer.headers.scheme, HeaderScheme::none);
        }
    }
}

TEST(SmimeRoundTripTest, ProtectsHeadersThatTheReaderFindsCovered) {
    SMime::WriteOptions how;
    how.protectHeader = true;
    for (const Shells& one : all()) {
        const Read read = readBy(wrapped(mail, one.shells, how), person("bob"));
        EXPECT_EQ(kindsOf(read.answer), one.kinds);
        const bool encrypts =
            std::ranges::any_of(one.shells, [](const SMime::Wrapping& shell) { return shell.index() == 1; });
        EXPECT_EQ(read.answer.headers.scheme, encrypts ? HeaderScheme::cipher : HeaderScheme::clear);
        std::map<std::string, SMime::FieldState> states;
        for (const SMime::ProtectedField& field : read.answer.headers.fields) {
            states[field.name] = field.state;
            if (field.name == "Subject") {
                EXPECT_EQ(field.value, "Lunch");
                EXPECT_EQ(field.outside, encrypts ? "[...]" : "Lunch");
            }
        }
        EXPECT_EQ(states, (std::map<std::string, SMime::FieldState>{
                              {"From", SMime::FieldState::same},
                              {"To", SMime::FieldState::same},
                              {"Subject", encrypts ? SMime::FieldState::obscured : SMime::FieldState::same}}));
        EXPECT_THAT(read.answer.headers.outsideOnly, testing::IsEmpty());
    }
}

/// Pairs and certificates of people by address, as a directory or a service would have them.
class AddressBook : public NVX509::KeyStorePlugin {
public:
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& issuer, const ASN1::Integer& serial) override {
        for (const auto& [address, who] : people) {
            const NVX509::KeyCertificatePair pair = pairOf(*who);
            if (NVX509::displayName(pair->certificate->issuer()) == NVX509::displayName(issuer) &&
                pair->certificate->serialNumber() == serial)
                return pair;
        }
        return NVX509::KeyCertificatePair(true);
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& address) override {
        const auto found = people.find(address.address());
        return found == people.end() ? NVX509::RefCertificate() : certificateOf(*found->second);
    }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& address) override {
        const auto found = people.find(address.address());
        return found == people.end() ? NVX509::KeyCertificatePair(true) : pairOf(*found->second);
    }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& address) override {
        return findSigningKey(address);
    }

    std::map<std::string, const Identity*> people;
};

NVX509::RefKeyStore storeOf(const std::vector<std::string>& names) {
    const NVX509::RefKeyStore store(true);
    for (const std::string& name : names) { // each in a plugin of its own: all of them are asked
        auto* const plugin = new AddressBook;
        plugin->people[name + "@example.com"] = &person(name);
        store->add(NVX509::RefKeyStorePlugin(plugin));
    }
    return store;
}

/// The sender's pair signs, the recipients' certificates encrypt, and whatever key fits decrypts.
TEST(SmimeRoundTripTest, FindsPeopleByAddressInAKeyStore) {
    SMime::SignOptions signing;
    signing.keys = storeOf({"alice", "bob", "carol"});
    SMime::EncryptOptions encrypting;
    encrypting.keys = signing.keys;
    encrypting.addressesOfMessage = true;
    const std::string toBoth =
        "From: Alice <alice@example.com>\nTo: bob@example.com\nCc: carol@example.com\nSubject: x\n\nhello\n";
    const std::string sent = wrapped(toBoth, {signing, encrypting});
    const auto verdictWith = [&](const std::vector<std::string>& names) {
        const CMS::KeyStoreLookup keys(storeOf(names));
        SMime::ReadOptions options;
        options.keys = &keys;
        MemoryMediaOut content;
        const SMime::Answer answer = SMime::read(MemoryMediaIn(sent), content, options);
        if (answer.verdict == Verdict::signatureGood) {
            EXPECT_EQ(answer.layers.at(1).signers.at(0).result.certificate->subject().asString(), "CN=alice");
        }
        return answer.verdict;
    };
    EXPECT_EQ(verdictWith({"bob"}), Verdict::signatureGood);
    EXPECT_EQ(verdictWith({"alice", "carol"}), Verdict::signatureGood);
    EXPECT_EQ(verdictWith({"alice"}), Verdict::noKey) << "the sender is no recipient unless asked for";
    EXPECT_EQ(verdictWith({}), Verdict::noKey);
}

TEST(SmimeRoundTripTest, SendsCertificatesThatTheReaderFinds) {
    MemoryMediaOut out;
    SMime::writeCertificates(MemoryMediaIn("From: alice@example.com\n\n"), {certificateOf(person("alice"))}, {}, out);
    const Read read = readBy(norvtest::textOf(out.content()), person("bob"));
    EXPECT_EQ(read.answer.verdict, Verdict::certificates);
}

/// Small mistakes everywhere: bytes changed, dropped, repeated and put in, at places and of kinds that a number chooses.
std::string changed(std::string text, unsigned int round) {
    std::uint64_t state = round * UINT64_C(0x9e3779b97f4a7c15) + 1;
    const auto next = [&state](std::size_t below) {
        state = state * UINT64_C(6364136223846793005) + UINT64_C(1442695040888963407);
        return static_cast<std::size_t>((state >> 33U) % below);
    };
    static const std::vector<std::string> pieces{"\r",
                                                 "\n",
                                                 "\r\n",
                                                 "\n\n",
                                                 std::string(1, '\0'),
                                                 "\xe4",
                                                 "\xc3\xa4",
                                                 "--b",
                                                 "\n--b\n",
                                                 "=",
                                                 "=3",
                                                 "\n--b--\n",
                                                 " \n",
                                                 "\t",
                                                 "From ",
                                                 "\nFrom x",
                                                 "\n.\n",
                                                 ":",
                                                 ";",
                                                 "\"",
                                                 "(",
                                                 "boundary=b",
                                                 "\n\nContent-Type: message/rfc822\n\n",
                                                 "Content-Transfer-Encoding: quoted-printable\n",
                                                 "Content-Transfer-Encoding: base64\n",
                                                 "Content-Transfer-Encoding: binary\n",
                                                 std::string(1100, 'x')};
    for (std::size_t count = 1 + next(6); count > 0; --count) {
        const std::size_t at = next(text.size() + 1);
        switch (next(3)) {
        case 0:
            text.insert(at, pieces[next(pieces.size())]);
            break;
        case 1:
            text.erase(at, 1 + next(4));
            break;
        default:
            text.insert(at, text.substr(next(text.size()), 1 + next(60)));
        }
    }
    return text;
}

TEST(SmimeRoundTripTest, KeepsItsWordForDamagedMails) {
    const std::string more =
        "X: y\nContent-Type: multipart/mixed; boundary=a\n\npreamble\n--a\n" + mail +
        "\n--a\n"
        "Content-Transfer-Encoding: quoted-printable\n\nsoft =\nbreak=20\n--a\n"
        "Content-Type: application/x; name=x\nContent-Transfer-Encoding: base64\n\nAAECAwQF\n--a--\nepilogue\n";
    const Identity& signer = person("quick", {.key = norvauthority::Key::ec()});
    unsigned int written = 0;
    for (unsigned int round = 0; round < 300; ++round) {
        const std::string damaged = changed(round % 2 == 0 ? more : withCrLf(more), round);
        SMime::WriteOptions how;
        how.protectHeader = round % 3 == 0;
        std::string sent;
        try {
            MemoryMediaOut out;
            SMime::sign(MemoryMediaIn(damaged), signedBy({&signer}), out, how);
            sent = norvtest::textOf(out.content());
        } catch (const Exception& failure) {
            EXPECT_EQ(failure.where(), "SMime::Writer") << damaged;
            continue;
        }
        ++written;
        const Read read = readBy(sent, person("bob"));
        ASSERT_EQ(read.answer.verdict, Verdict::signatureGood) << round << "\n"
                                                               << read.answer.detail << "\n"
                                                               << damaged;
        EXPECT_EQ(read.content, firstPart(sent));
        expectLines(read.content + (read.content.ends_with("\r\n") ? "" : "\r\n"), "\r\n", 998);
        // What was prepared once needs nothing more.
        MemoryMediaOut again;
        how.protectHeader = false;
        SMime::sign(MemoryMediaIn(read.content), signedBy({&signer}), again, how);
        const std::string twice = firstPart(norvtest::textOf(again.content()));
        if (round % 3 != 0) {
            EXPECT_EQ(twice, read.content) << round;
        }
    }
    EXPECT_GT(written, 200U);
}

} // namespace
