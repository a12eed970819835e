// What is told of what was found.
#include "Mails.h"
#include "Multiparts.h"

using namespace smimetest;
using interop::alice;
using interop::bob;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace Trust = Norvane::Crypto::Trust;

namespace {

constexpr unsigned int wire = CMS_BINARY | CMS_CRLFEOL;
constexpr unsigned int detached = wire | CMS_DETACHED;

TEST(SMimeTold, NamesOfFieldsAreComparedWithoutCaseAndValuesWithoutFolding) {
    const std::string entity =
        "AZ[: 1\r\nSubject: a\r\n b\r\nX-Tab:\tc \t d\r\nContent-Type: text/plain; hp=\"clear\"\r\n\r\nhello\r\n";
    const Answer answer =
        outcomeOf("az[: 1\r\nSUBJECT: a\r\n\tb\r\nx-tab: c d\r\n" + signedBy(alice(), entity, detached)).answer;
    ASSERT_EQ(answer.headers.fields.size(), 3U);
    for (const SMime::ProtectedField& field : answer.headers.fields)
        EXPECT_EQ(field.state, SMime::FieldState::same) << field.name;
    EXPECT_THAT(answer.headers.outsideOnly, IsEmpty());
    const Answer other = outcomeOf("az{: 1\r\n" + signedBy(alice(), entity, detached)).answer;
    EXPECT_THAT(other.headers.outsideOnly, ElementsAre("az{"));
}

TEST(SMimeTold, TheSenderIsTheOneOutsideOrTheOneThatIsCovered) {
    const auto senderOf = [](const std::string& outside, const std::string& inside) {
        return outcomeOf(fieldsOfAlice + outside + signedBy(alice(), inside + plainEntity, detached)).answer.sender;
    };
    EXPECT_THAT(senderOf("", ""), IsEmpty());
    EXPECT_THAT(senderOf("Sender: s@example.org\r\n", ""), ElementsAre("s@example.org"));
    EXPECT_THAT(senderOf("", "Sender: t@example.org\r\n"), ElementsAre("t@example.org"));
    EXPECT_THAT(senderOf("Sender: s@example.org\r\n", "Sender: t@example.org\r\n"), ElementsAre("s@example.org"));
}

TEST(SMimeTold, AWrappedMessageIsFromTheSameSendersInAnyOrder) {
    const std::string message = "From: bob@EXAMPLE.org, Alice <alice@example.org>\r\nSubject: x\r\n\r\nhello\r\n";
    const std::string entity = "Content-Type: message/rfc822\r\n\r\n" + message;
    const auto read = [&](const std::string& from) {
        return outcomeOf("From: " + from + "\r\n" + signedBy(alice(), entity, detached));
    };
    for (const std::string from : {"alice@example.org, bob@example.org", "bob@example.org, alice@Example.ORG"}) {
        const Outcome wrapped = read(from);
        EXPECT_EQ(wrapped.answer.headers.scheme, SMime::HeaderScheme::wrapped) << from;
        EXPECT_EQ(wrapped.content, message);
        ASSERT_EQ(wrapped.answer.layers.size(), 2U);
        EXPECT_TRUE(wrapped.answer.layers[1].coversContent);
        EXPECT_EQ(wrapped.answer.layers[1].detail, "");
    }
    for (const std::string from : {"alice@example.org", "alice@example.org, bob@example.org, carol@example.org"}) {
        const Outcome forwarded = read(from);
        EXPECT_EQ(forwarded.answer.headers.scheme, SMime::HeaderScheme::none) << from;
        EXPECT_EQ(forwarded.content, entity);
        ASSERT_EQ(forwarded.answer.layers.size(), 2U);
        EXPECT_FALSE(forwarded.answer.layers[1].coversContent);
        EXPECT_EQ(forwarded.answer.layers[1].detail, "");
    }
}

// Half of a header does not tell whose the message is: more of it may follow.
TEST(SMimeTold, AWrappedMessageHasAHeaderOfLessThanSixtyFourKilobytes) {
    const auto schemeOf = [](std::size_t length) {
        std::string message = "From: alice@example.org\r\nX-Long: \r\n\r\n";
        message.insert(message.size() - 4, length - message.size(), 'x');
        EXPECT_EQ(message.size(), length);
        message += "hello\r\n";
        const std::string entity = "Content-Type: message/rfc822\r\n\r\n" + message;
        const Outcome outcome = outcomeOf(fieldsOfAlice + signedBy(alice(), entity, detached));
        EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
        return outcome.answer.headers.scheme;
    };
    EXPECT_EQ(schemeOf(65535), SMime::HeaderScheme::wrapped);
    EXPECT_EQ(schemeOf(65536), SMime::HeaderScheme::none);
    EXPECT_EQ(schemeOf(70000), SMime::HeaderScheme::none);
}

TEST(SMimeTold, ANameThatIsAnEndingAloneIsThatOfAStructure) {
    const std::string entity = encryptedFor({&bob()}, plainEntity);
    const std::string body = entity.substr(entity.find("\r\n\r\n"));
    for (const std::string name : {".p7m", "a.P7C", ".p7z", "x.p7s"}) {
        const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Type: application/octet-stream; name=" + name +
                                          "\r\nContent-Transfer-Encoding: base64" + body);
        EXPECT_EQ(outcome.content, plainEntity) << name;
    }
    for (const std::string name : {"p7m", "a.p7x", ".p7m.txt"}) {
        const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Type: application/octet-stream; name=" + name +
                                          "\r\nContent-Transfer-Encoding: base64" + body);
        EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime) << name;
    }
}

// Of one signer too many certificates have the name, so that nothing is known of him: why the other one is not accepted is told.
TEST(SMimeTold, WhyNobodyIsAcceptedIsTheReasonOfASignerThatWasJudged) {
    const Trust::Verifier nobody(std::make_shared<Trust::Material>());
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(x509testing::read(interop::root()));
    const Trust::Verifier root(material);
    const std::string mail = signedBy({&alice(), &bob()}, plainEntity, detached | CMS_NOCERTS);
    for (const bool isBobKnown : {false, true}) {
        const norvauthority::Identity& known = isBobKnown ? bob() : alice();
        SMime::ReadOptions options;
        options.certificates = {x509testing::read(known)};
        for (int number = 0; number != 5; ++number)
            options.certificates.push_back(
                x509testing::read(norvauthority::issue({.subject = {{"CN", "alike " + std::to_string(number)}},
                                                        .key = known.key,
                                                        .issuer = &interop::root(),
                                                        .serial = isBobKnown ? alice().serial : bob().serial})));
        for (const bool isTrusted : {false, true}) {
            options.trust = isTrusted ? &root : &nobody;
            const Outcome outcome = outcomeOf("From: mallory@example.org\r\n" + mail, options);
            EXPECT_EQ(outcome.answer.verdict, Verdict::refused);
            ASSERT_EQ(outcome.answer.layers.at(0).signers.size(), 2U);
            std::size_t judged = 0;
            for (const SMime::LayerSigner& signer : outcome.answer.layers[0].signers) {
                if (signer.result.verdict != CMS::SignatureVerdict::good)
                    continue;
                ++judged;
                ASSERT_TRUE(signer.trust);
                ASSERT_TRUE(signer.sender);
                EXPECT_EQ(signer.trust->accepted, isTrusted);
                EXPECT_EQ(outcome.answer.detail,
                          isTrusted ? signer.sender->reasons.at(0).text : signer.trust->reasons.at(0).text);
            }
            EXPECT_EQ(judged, 1U);
        }
    }
}

TEST(SMimeTold, ASenderIsComparedWhenThereIsOneAlone) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(x509testing::read(interop::root()));
    const Trust::Verifier verifier(material);
    SMime::ReadOptions options;
    options.trust = &verifier;
    const auto relationOf = [&](const std::string& fields) {
        const Outcome outcome = outcomeOf(fields + signedBy(alice(), plainEntity, detached), options);
        EXPECT_EQ(outcome.answer.verdict, Verdict::refused) << fields;
        return outcome.answer.layers.at(0).signers.at(0).sender->relation;
    };
    const std::string from = "From: m@example.org\r\n";
    EXPECT_EQ(relationOf(from + "Sender: alice@example.org\r\n"), Trust::SenderRelation::sender);
    EXPECT_EQ(relationOf(from + "Sender: s@example.org\r\n"), Trust::SenderRelation::none);
    EXPECT_EQ(relationOf(from + "Sender: alice@example.org, s@example.org\r\n"), Trust::SenderRelation::none);
}

TEST(SMimeTold, FieldsAreComparedWithWhatTheSenderSaysToHavePutOutside) {
    const auto statesOf = [](const std::string& outside, const std::string& inside, const std::string& scheme) {
        const std::string entity = inside + "Content-Type: text/plain; hp=\"" + scheme + "\"\r\n\r\nhello\r\n";
        std::vector<std::string> states;
        const Outcome outcome = outcomeOf(outside + encryptedFor({&bob()}, signedBy(alice(), entity, detached)));
        for (const SMime::ProtectedField& field : outcome.answer.headers.fields)
            states.push_back(field.name + ' ' + nameOf(field.state));
        return states;
    };
    EXPECT_THAT(statesOf("Subject: x\r\n", "Subject: real\r\nHP-Outer: Subject:x\r\n", "cipher"),
                ElementsAre("Subject obscured"));
    EXPECT_THAT(statesOf("", "Subject: real\r\n", "cipher"), ElementsAre("Subject obscured"))
        << "left out outside, as the missing HP-Outer says";
    EXPECT_THAT(statesOf("", "Subject: real\r\n", "clear"), ElementsAre("Subject missing"));
    EXPECT_THAT(statesOf("X-A: 1\r\n", "X-A: 1\r\nX-A: 2\r\n", "clear"), ElementsAre("X-A same", "X-A missing"));
    EXPECT_THAT(statesOf("Subject: x\r\n", "Subject: =?utf-8?q?_x?=\r\n", "clear"), ElementsAre("Subject same"));
}

TEST(SMimeTold, OfAFromThatIsNotReadableAHundredOctetsAreTold) {
    const std::string signedPart = signedBy(alice(), plainEntity, detached);
    EXPECT_THAT(outcomeOf("From: j" + std::string(150, 'k') + "\r\n" + signedPart).answer.from,
                Contains("not readable: j" + std::string(99, 'k')));
    EXPECT_THAT(outcomeOf("From\r\n" + fieldsOfAlice + signedPart).answer.from, ElementsAre("alice@example.org"))
        << "a line without a colon is no field";
}

TEST(SMimeTold, AHeaderThatEndsInAReturnIsHandedOnWithALineEnd) {
    SMime::ReadOptions options;
    options.wholeMessage = true;
    const Outcome outcome =
        outcomeOf("Subject: x\r\n" + signedBy(alice(), "Content-Type: text/plain\r", detached), options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood) << outcome.answer.detail;
    EXPECT_EQ(outcome.content, "Subject: x\r\nContent-Type: text/plain\r\r\nMIME-Version: 1.0\r\n\r\n");
}

TEST(SMimeTold, PartsAreListedWithWhatTheyHoldAndOnce) {
    SMime::ReadOptions options;
    options.listParts = true;
    const auto leaf = [&](const std::string& word, const std::string& body) {
        const auto leaves = leavesOf(
            outcomeOf(fieldsOfAlice + "Content-Transfer-Encoding: " + word + "\r\n\r\n" + body, options).answer);
        return leaves.size() == 1 ? leaves[0] : "";
    };
    EXPECT_EQ(leaf("base64", "TUlNRUU"), "1 text/plain \"\" base64 5") << "without padding";
    EXPECT_EQ(leaf("quoted-printable", "=41 \r"), "1 text/plain \"\" quoted-printable 3");
    EXPECT_EQ(leaf(std::string(150, 'x'), "abc"), "1 text/plain \"\" " + std::string(100, 'x') + " 3");
    EXPECT_EQ(leaf("base64", std::string(40000, 'A')), "1 text/plain \"\" base64 30000");
    options.budget.parts = 1;
    const std::string twice = signedBy(alice(), signedBy(alice(), plainEntity, detached), detached);
    EXPECT_THAT(outcomeOf(fieldsOfAlice + twice, options).answer.oddities,
                ElementsAre(HasSubstr("more than 1 parts that hold no others; the rest is not listed")));
}

TEST(SMimeRead, TheWholeSourceIsTaken) {
    const std::string mail = fieldsOfAlice + mixedOf(1) + std::string(100000, 'e');
    const Norvane::MediaIn in = Norvane::MemoryMediaIn(mail);
    Norvane::MemoryMediaOut content;
    EXPECT_EQ(SMime::read(in, content, {}).verdict, Verdict::notSMime);
    EXPECT_TRUE(in.atEnd());
}

TEST(SMimeTold, AMailWithoutSMimeHasNoPartThatIsNotCovered) {
    EXPECT_THAT(outcomeOf(fieldsOfAlice + plainEntity).answer.notCovered, IsEmpty());
}

std::string base64Of(const std::string& octets) {
    std::string text(octets.size() * 2 + 4, '\0');
    text.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                                         reinterpret_cast<const unsigned char*>(octets.data()),
                                                         static_cast<int>(octets.size()))));
    return text;
}

/// The type of a content (RFC 5652, 3; RFC 5083, 2.1; RFC 3274, 1.1).
std::string objectIdentifier(const std::string& value) {
    return '\x06' + std::string(1, static_cast<char>(value.size())) + value;
}

/// Of a structure as the whole message.
std::string detailOf(const std::string& octets) {
    const Answer answer = outcomeOf(fieldsOfAlice + "Content-Type: application/pkcs7-mime\r\n" +
                                    "Content-Transfer-Encoding: base64\r\n\r\n" + base64Of(octets))
                              .answer;
    return std::string(nameOf(answer.verdict)) + ' ' + answer.detail;
}

TEST(SMimeTold, TypesOfStructures) {
    const std::string pkcs7 = "\x2a\x86\x48\x86\xf7\x0d\x01\x07";
    const std::string smime = "\x2a\x86\x48\x86\xf7\x0d\x01\x09\x10\x01";
    const std::pair<std::string, std::string> others[] = {{smime + '\x09', "CompressedData"},
                                                          {pkcs7 + '\x04', "SignedAndEnvelopedData"},
                                                          {pkcs7 + '\x05', "DigestedData"},
                                                          {pkcs7 + '\x06', "EncryptedData"},
                                                          {smime + '\x02', "AuthenticatedData"}};
    // The length in all its forms (X.690, 8.1.3), the indefinite one first.
    for (const std::string& length : {std::string("\x80"), std::string("\x0d"), std::string("\x81\x0d"),
                                      "\x84" + std::string(3, '\0') + '\x0d', "\x88" + std::string(7, '\0') + '\x0d'}) {
        for (const auto& [type, name] : others)
            EXPECT_EQ(detailOf('\x30' + length + objectIdentifier(type)),
                      "unsupported part 1: a structure of type " + name);
    }
    for (const std::string& none : {std::string("\x31\x80") + objectIdentifier(pkcs7 + '\x05'),
                                    "\x30\x89" + std::string(9, '\0') + objectIdentifier(pkcs7 + '\x05'),
                                    std::string("\x30\x80\x05") + objectIdentifier(pkcs7 + '\x05').substr(1),
                                    "\x30\x80" + objectIdentifier(pkcs7 + '\x7f'), "\x30\x80" + objectIdentifier(pkcs7),
                                    std::string("\x30"), std::string("\x30\x80\x06")})
        EXPECT_EQ(detailOf(none), "damaged part 1: no CMS structure is there");
}

// SignedData of GM/T 0010: it is sound, whoever knows it.
TEST(SMimeTold, StructuresOfTypesThatNobodyKnowsHere) {
    const std::string identifier("\x06\x0a\x2a\x81\x1c\xcf\x55\x06\x01\x04\x02\x02", 12);
    const std::string content = "\xa0\x80\x30\x80";
    for (const std::string& length : {std::string("\x80"), std::string("\x82\x10\x00", 3)}) {
        EXPECT_EQ(detailOf('\x30' + length + identifier + content),
                  "unsupported part 1: a structure of type 1.2.156.10197.6.1.4.2.2");
        EXPECT_EQ(detailOf('\x30' + length + identifier + "\x30\x80"), "damaged part 1: no CMS structure is there");
    }
    EXPECT_EQ(detailOf("\x30\x80\x06\x03\x88\x37\x01" + content), "unsupported part 1: a structure of type 2.999.1");
    const std::string longest = "\x06\x40" + std::string(63, '\x2a') + '\x2a';
    EXPECT_THAT(detailOf("\x30\x80" + longest + content),
                HasSubstr("unsupported part 1: a structure of type 1.2.42.42"));
    for (const std::string& damaged :
         {"\x30\x80\x06\x02\x2a\x81" + content, "\x30\x80\x06" + std::string(1, '\0') + content,
          "\x30\x80\x06\x7f" + std::string(127, '\x2a') + content,
          "\x30\x80\x06\x81\x0a" + identifier.substr(2) + content})
        EXPECT_EQ(detailOf(damaged), "damaged part 1: no CMS structure is there");
}

TEST(SMimeTold, OfSeveralSignersTheOneThatIsWrong) {
    SMime::ReadOptions options;
    options.onlyTheseCertificates = true;
    options.certificates = {x509testing::read(alice())};
    for (const auto& signers : {std::vector<const norvauthority::Identity*>{&alice(), &bob()},
                                std::vector<const norvauthority::Identity*>{&bob(), &alice()}}) {
        const SMime::Layer layer =
            outcomeOf(fieldsOfAlice + signedBy(signers, plainEntity, detached), options).answer.layers.at(0);
        EXPECT_EQ(layer.status, LayerStatus::signatureWrong);
        EXPECT_EQ(layer.detail, CMS::textOf(CMS::SignatureReason::certificateMissing));
    }
}

// Without signed attributes (RFC 5652, 5.4) there is no digest to compare: the signature is wrong for a body that was changed.
TEST(SMimeTold, ASignatureWithoutAttributesIsTriedOverTheCanonicalTextToo) {
    const std::string mail = signedBy(alice(), plainEntity, detached | CMS_NOATTR);
    EXPECT_EQ(outcomeOf(fieldsOfAlice + mail).answer.verdict, Verdict::signatureGood);
    const Outcome mixed = outcomeOf(fieldsOfAlice + replaced(mail, "Bob,\r\n", "Bob,\n"));
    EXPECT_EQ(mixed.answer.verdict, Verdict::signatureGood) << mixed.answer.detail;
    EXPECT_EQ(mixed.answer.layers.at(0).form, SMime::SignedForm::canonical);
    EXPECT_EQ(outcomeOf(fieldsOfAlice + replaced(mail, "Bob,\r\n", "Bob;\n")).answer.verdict, Verdict::refused);
}

TEST(SMimeTold, WhatIsMissingOfAMultipartSigned) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(entity);
    const std::size_t second = entity.find(boundary, entity.find(plainEntity));
    const Outcome missing = outcomeOf(fieldsOfAlice + entity.substr(0, second) + boundary + "--\r\n");
    EXPECT_EQ(missing.answer.verdict, Verdict::damaged);
    EXPECT_EQ(missing.answer.detail, "part 1: the part with the signature is missing");
    EXPECT_EQ(missing.content, plainEntity);
    const Outcome none = outcomeOf(fieldsOfAlice + entity.substr(0, entity.find("\r\n\r\n")) + "\r\n\r\nno part\r\n");
    EXPECT_EQ(none.answer.verdict, Verdict::damaged);
    EXPECT_EQ(none.answer.detail, "part 1: there is no part");
    const Outcome garbage =
        outcomeOf(fieldsOfAlice + entity.substr(0, second) + boundary +
                  "\r\nContent-Type: application/pkcs7-signature\r\n\r\nMIAG\r\n" + boundary + "--\r\n");
    EXPECT_EQ(garbage.answer.verdict, Verdict::damaged);
    EXPECT_EQ(garbage.answer.detail.find("part 1: "), 0U);
    EXPECT_THAT(garbage.answer.detail, testing::Not(HasSubstr("it was not read to its end")));
    EXPECT_GT(garbage.answer.detail.size(), 8U);
}

TEST(SMimeTold, PartsBehindASignature) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(entity);
    SMime::ReadOptions options;
    options.listParts = true;
    const Outcome outcome =
        outcomeOf(fieldsOfAlice + replaced(entity, boundary + "--",
                                           boundary + "\r\nContent-Type: text/html\r\n\r\nthree\r\n" + boundary +
                                               "\r\nContent-Type: image/png\r\n\r\n4\r\n" + boundary + "--"),
                  options);
    EXPECT_EQ(outcome.answer.verdict, Verdict::signatureGood);
    ASSERT_THAT(pathsOf(outcome.answer.notCovered), ElementsAre("1.3", "1.4"));
    EXPECT_EQ(outcome.answer.notCovered[0].type, "text/html");
    EXPECT_EQ(outcome.answer.notCovered[1].type, "image/png");
    EXPECT_THAT(outcome.answer.oddities, ElementsAre(HasSubstr(" 1.3: a third part in a multipart/signed"),
                                                     HasSubstr(" 1.4: a third part in a multipart/signed")));
    const std::vector<std::string> leaves = leavesOf(outcome.answer);
    ASSERT_EQ(leaves.size(), 4U);
    EXPECT_EQ(leaves[2], "1.3 text/html \"\" 7bit 5");
    EXPECT_EQ(leaves[3], "1.4 image/png \"\" 7bit 1");
}

TEST(SMimeTold, OneLineThatLooksLikeABoundary) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::string boundary = boundaryOf(entity);
    const Outcome outcome =
        outcomeOf(fieldsOfAlice + replaced(entity, boundary + "--", boundary + "x\r\n" + boundary + "--"));
    EXPECT_EQ(outcome.answer.verdict, Verdict::damaged);
    EXPECT_EQ(outcome.answer.detail,
              "part 1: lines beside its parts begin with the boundary, so that others may see other parts");
    EXPECT_THAT(outcome.answer.oddities,
                ElementsAre(HasSubstr("lines begin with the boundary but go on: other readers may see other parts")));
}

// What the walk through it leaves is digested as well.
TEST(SMimeTold, AnOpaqueSignatureBesideTheContentIsJudgedToItsEnd) {
    const std::string text = mixedOf(1) + std::string(100000, 'e');
    const Outcome outcome = outcomeOf(fieldsOfAlice + "Content-Type: multipart/mixed; boundary=out\r\n\r\n--out\r\n" +
                                      signedBy(alice(), plainEntity, detached) + "\r\n--out\r\n" +
                                      signedBy(alice(), text, wire) + "\r\n--out--\r\n");
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("multipart-signed 1.1 good", "opaque-signed 1.2 good"));
    EXPECT_EQ(outcome.content, plainEntity);
}

TEST(SMimeTold, ASignatureOutsideOfAMultipartSigned) {
    const std::string entity = signedBy(alice(), plainEntity, detached);
    const std::size_t at = entity.find("Content-Type: application/pkcs7-signature");
    const Outcome outcome = outcomeOf(fieldsOfAlice + entity.substr(at, entity.find("\r\n--", at) - at));
    EXPECT_EQ(outcome.answer.verdict, Verdict::notSMime);
    EXPECT_THAT(layersOf(outcome.answer), ElementsAre("opaque-signed 1 unsupported"));
    EXPECT_EQ(outcome.answer.layers.at(0).detail,
              "a signature outside of a multipart/signed: what it is about is not known");
}

} // namespace
