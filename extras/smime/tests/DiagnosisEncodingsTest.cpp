#include "Diagnosing.h"

#include "support/Process.h"
#include "support/Workspace.h"

#include <gmock/gmock.h>

namespace {

using namespace diagnosing;
using testing::ElementsAre;

const std::string plainHeader = "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: ";
const std::string quotedHeader = plainHeader + "quoted-printable\r\n\r\n";
const std::string base64Header = plainHeader + "base64\r\n\r\n";
const std::string eightBitHeader = plainHeader + "8bit\r\n\r\n";

/// A text of long lines, with what has to be encoded.
const std::string longText = "Gr\xC3\xBC\xC3\x9F"
                             "e aus K\xC3\xB6ln, wo 1 + 1 = 2 ist und die Zeilen l\xC3\xA4nger sind als "
                             "die Post sie gerne h\xC3\xA4tte, n\xC3\xA4mlich \xC3\xBC"
                             "ber achtzig Zeichen.\r\n"
                             "blank at the end \r\n"
                             "\r\n"
                             "From here on\r\n"
                             ".\r\n";

/// What Python's standard library makes of the text: an encoder that is not ours.
std::string byPython(const std::string& program, const std::string& input) {
    const interop::Answer answer = interop::run({.arguments = {"python3", "-c",
                                                               "import sys, quopri, base64, binascii\n"
                                                               "data = sys.stdin.buffer.read()\n"
                                                               "out = " +
                                                                   program +
                                                                   "\n"
                                                                   "sys.stdout.buffer.write(out)"},
                                                 .input = input});
    EXPECT_EQ(0, answer.status) << answer.err;
    return answer.out;
}
std::string quotedByPython(const std::string& text) {
    return replaced(byPython("quopri.encodestring(data.replace(b'\\r\\n', b'\\n'))", text), "\n", "\r\n");
}
std::string base64ByPython(const std::string& text) {
    return replaced(byPython("base64.encodebytes(data)", text), "\n", "\r\n");
}

TEST(DiagnosisEncodings, QuotedPrintableAgain) {
    if (!interop::installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    // Typed by hand: a soft break where nobody needs one, an escape that is not needed.
    const std::string tight = quotedHeader + "Gr=C3=BC=C3=9Fe=2C 1 +=\r\n 1 =3D 2\r\n";
    EXPECT_EQ(Names{"quoted-printable-reencoded"},
              changesBetween(quotedHeader + "Gr=C3=BC=C3=9Fe, 1 + 1 =3D 2\r\n", tight));
    EXPECT_EQ(Names{"quoted-printable-reencoded"},
              changesBetween(quotedHeader + "a =3d b\r\n", quotedHeader + "a =3D b\r\n"));
    EXPECT_EQ(Names{"quoted-printable-reencoded"},
              changesBetween(quotedHeader + "a =3D b\r\n", quotedHeader + "a =3d b\r\n"));
    EXPECT_EQ(Names{"quoted-printable-reencoded"},
              changesBetween(quotedHeader + "=46rom x\r\n=2E\r\n", quotedHeader + "From x\r\n.\r\n"));
    EXPECT_THAT(changesBetween(quotedHeader + "a =3D b\r\n", replaced(quotedHeader + "a =3d b\r\n", "\r\n", "\n")),
                ElementsAre("line-ends-lf", "quoted-printable-reencoded"));
    const std::string sent = quotedHeader + quotedByPython(longText);
    EXPECT_EQ(Names{"quoted-printable-reencoded"}, changesBetween(sent, replaced(sent, "=\r\n", "")));
}

TEST(DiagnosisEncodings, BetweenTheEncodings) {
    if (!interop::installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    const std::string quoted = quotedHeader + quotedByPython(longText);
    const std::string base64 = base64Header + base64ByPython(longText);
    const std::string eightBit = eightBitHeader + longText;
    EXPECT_EQ(Names{"quoted-printable-made-base64"}, changesBetween(quoted, base64));
    EXPECT_EQ(Names{"base64-made-quoted-printable"}, changesBetween(base64, quoted));
    EXPECT_EQ(Names{"made-7-bit"}, changesBetween(eightBit, quoted));
    EXPECT_EQ(Names{"made-7-bit"}, changesBetween(eightBit, base64));
    EXPECT_EQ(Names{"made-8-bit"}, changesBetween(quoted, eightBit));
    EXPECT_EQ(Names{"made-8-bit"}, changesBetween(base64, eightBit));
    const std::string unnamed = "Content-Type: text/plain; charset=utf-8\r\n\r\n" + longText;
    EXPECT_EQ(Names{"made-7-bit"}, changesBetween(unnamed, quoted));
    EXPECT_THAT(changesBetween(eightBit, replaced(quoted, "\r\n", "\n")), ElementsAre("line-ends-lf", "made-7-bit"));
    EXPECT_EQ(Names{"base64-made-quoted-printable"},
              changesBetween(base64Header + base64ByPython(replaced(longText, "\r\n", "\n")), quoted));
}

TEST(DiagnosisEncodings, OfPartsWithinParts) {
    if (!interop::installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    const auto around = [](const std::string& part) {
        return "Content-Type: multipart/alternative; boundary=x\r\n\r\n--x\r\n" + part + "\r\n--x\r\n" +
               "Content-Type: text/html\r\n\r\n<p>=C3</p>\r\n--x--\r\n";
    };
    const std::string line = longText.substr(0, longText.find("\r\n"));
    const std::string quoted = quotedByPython(line);
    EXPECT_EQ(Names{"made-7-bit"}, changesBetween(around(eightBitHeader + line), around(quotedHeader + quoted)));
    const std::string base64 = base64ByPython(line);
    const std::string encoded = base64.substr(0, base64.size() - 2);
    EXPECT_EQ(Names{"made-7-bit"}, changesBetween(around(eightBitHeader + line), around(base64Header + encoded)));
    EXPECT_EQ(Names{"made-8-bit"}, changesBetween(around(base64Header + encoded), around(eightBitHeader + line)));
    EXPECT_EQ(Names{"quoted-printable-made-base64"},
              changesBetween(around(quotedHeader + quoted), around(base64Header + encoded)));
}

TEST(DiagnosisEncodings, CharacterSets) {
    const auto in = [](const std::string& set, const std::string& encoding, const std::string& text) {
        return "Content-Type: text/plain; charset=" + set + "\r\nContent-Transfer-Encoding: " + encoding + "\r\n\r\n" +
               text;
    };
    EXPECT_EQ(Names{"character-set-changed"},
              changesBetween(in("ISO-8859-1", "8bit", "K\xF6ln\r\n"), in("utf-8", "8bit", "K\xC3\xB6ln\r\n")));
    EXPECT_EQ(Names{"character-set-changed"},
              changesBetween(in("windows-1252", "8bit", "5 \x80\r\n"), in("utf-8", "8bit", "5 \xE2\x82\xAC\r\n")));
    EXPECT_EQ(Names{"character-set-changed"},
              changesBetween(in("UTF-8", "8bit", "K\xC3\xB6ln\r\n"), in("iso-8859-1", "8bit", "K\xF6ln\r\n")));
    EXPECT_EQ(Names{"character-set-changed"}, changesBetween(in("ISO-8859-1", "quoted-printable", "K=F6ln\r\n"),
                                                             in("utf-8", "quoted-printable", "K=C3=B6ln\r\n")));
    // What is no UTF-8 comes out as it is.
    EXPECT_EQ(Names{"0 explanations"},
              changesBetween(in("ISO-8859-1", "8bit", "K\xF6ln\r\n"), in("utf-8", "8bit", "K\xF6\xFFln\r\n")));
}

/// A signature by the openssl program, a message re-encoded by Python's email package, and the part cut out of it.
TEST(DiagnosisEncodings, AsOtherProgramsDoIt) {
    if (!interop::installed("python3")) {
        GTEST_SKIP() << "python3 is not installed";
    }
    const interop::Workspace work;
    work.write("alice.pem", interop::alice().certificate.pem());
    work.write("alice.key", interop::alice().key.pkcs8Pem());
    const auto signedBy = [&](const std::string& sent) {
        work.write("sent", sent);
        const interop::Answer answer =
            interop::run({.arguments = {"openssl", "cms", "-sign", "-binary", "-in", "sent", "-signer", "alice.pem",
                                        "-inkey", "alice.key", "-outform", "DER", "-out", "sig"},
                          .directory = work.directory()});
        EXPECT_EQ(0, answer.status) << answer.err;
        return bytesOf(work.read("sig"));
    };
    const auto rewritten = [&](const std::string& sent, const std::string& change) {
        return byPython(
            "(lambda email, policy, m: (" + change +
                ", m.as_bytes(policy=policy.SMTP))[-1])(__import__('email'), __import__('email.policy').policy, "
                "__import__('email').message_from_bytes(data))",
            sent);
    };
    // An 8-bit text for a server without 8BITMIME (RFC 6152, 3): Python makes base64 of it, or quoted-printable.
    const std::string sent =
        "Content-Type: text/plain; charset=\"utf-8\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + longText;
    for (const char* const encoder : {"encode_base64", "encode_quopri"}) {
        const std::string arrived = rewritten(
            sent, "m.replace_header('Content-Transfer-Encoding', '8bit'), m.__delitem__('Content-Transfer-Encoding'), "
                  "m.set_payload(m.get_payload(decode=True)), __import__('email.encoders').encoders." +
                      std::string(encoder) + "(m)");
        ASSERT_NE(sent, arrived);
        EXPECT_EQ(Names{"made-7-bit"}, namesOf(diagnosisOf(signedBy(sent), arrived))) << encoder << arrived;
    }
    work.write("crlf", sent);
    const interop::Answer sed = interop::run(
        {.arguments = {"sed", "-e", "s/\\r$//", "-e", "s/^From />&/", "crlf"}, .directory = work.directory()});
    ASSERT_EQ(0, sed.status);
    EXPECT_THAT(namesOf(diagnosisOf(signedBy(sent), sed.out)), ElementsAre("line-ends-lf", "from-escaped"));
}

} // namespace
