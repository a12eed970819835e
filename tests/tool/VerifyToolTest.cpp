// norvcrypt verify: every form of input, every verdict and exit code.

#include "support/SigningToolTest.h"

using namespace interop;
using norvauthority::Identity;

namespace {

class VerifyToolTest : public SigningToolTest {};

TEST_F(VerifyToolTest, FileToFile) {
    signBody();
    EXPECT_EQ('\x30', work.read("sig")[0]);
    expectGood(tool({"verify", "--signature", "sig", "--in", "body"}));
}

TEST_F(VerifyToolTest, StandardInputAndOutput) {
    const Answer signature = sign({}, body);
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGood(tool({"verify", "--signature", "sig"}, body), "standard input");
}

TEST_F(VerifyToolTest, DashesAreStandardInputAndOutput) {
    const Answer signature = sign({"--in", "-", "--out", "-"}, body);
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGood(tool({"verify", "--signature", "sig", "--in", "-"}, body), "standard input");
}

TEST_F(VerifyToolTest, SignatureFromStandardInput) {
    signBody();
    expectGood(tool({"verify", "--signature", "-", "--in", "body"}, work.read("sig")));
}

TEST_F(VerifyToolTest, SignatureAndBodyBothFromStandardInputIsBadUsage) {
    signBody();
    before = work.names();
    expectFailure(tool({"verify", "--signature", "-"}, work.read("sig")), "standard input can be read only once");
}

TEST_F(VerifyToolTest, PemInputMaySayCmsOrPkcs7WithTextAround) {
    signBody();
    const std::string der = work.read("sig");
    for (const char* label : {"CMS", "PKCS7", "PKCS #7 SIGNED DATA"}) {
        // The digit 0 is the byte that a binary structure begins with.
        for (const char* leading : {"leading text\n", "0 leading text\n", "0\x06\n", "00", "0"}) {
            work.write("sig.pem", std::string(leading) + "\n" + norvauthority::pem(label, norvauthority::bytes(der)) +
                                      "trailing\n");
            expectGood(tool({"verify", "--signature", "sig.pem", "--in", "body"}));
        }
    }
}

TEST_F(VerifyToolTest, SeveralStructuresInOneFileAreRefused) {
    signBody();
    const std::string der = work.read("sig");
    const std::string text = norvauthority::pem("CMS", norvauthority::bytes(der));
    work.write("several", text + text);
    before = work.names();
    const std::vector<std::string> arguments{"verify", "--signature", "several", "--in", "body"};
    expectFailure(tool(arguments), "norvcrypt: more than one CMS structure in several\n");
    for (const std::string& more : {der, std::string("x"), std::string("\0\n0", 3)}) {
        work.write("several", der + more);
        expectFailure(tool(arguments), "norvcrypt: bytes follow the CMS structure in several\n");
    }
    // Padding says nothing.
    work.write("several", der + std::string("\0\0\r\n \t", 6));
    expectGood(tool(arguments));
}

TEST_F(VerifyToolTest, WhatFollowsAStructureInATextIsRefusedToo) {
    signBody();
    const std::string der = work.read("sig");
    const auto base64 = [](const std::string& octets) {
        const std::string pem = norvauthority::pem("X", norvauthority::bytes(octets));
        const std::size_t begin = pem.find('\n') + 1;
        return pem.substr(begin, pem.rfind("-----END") - begin);
    };
    const std::string header = "Content-Type: application/pkcs7-signature\nContent-Transfer-Encoding: base64\n\n";
    const std::string text = "--b\nContent-Type: text/plain\n\nhello\n";
    const std::vector<std::string> arguments{"verify", "--signature", "several", "--in", "body"};
    work.write("several", "");
    before = work.names();
    const norvauthority::Bytes& octets = alice().certificate.der;
    const std::string certificate(octets.begin(), octets.end());
    for (const std::string& more : {std::string("x"), certificate}) {
        for (const std::string& begin : {std::string(), header}) {
            work.write("several", begin + base64(der + more));
            expectFailure(tool(arguments), "norvcrypt: bytes follow the CMS structure in several\n");
        }
    }
    for (const std::string& between : {std::string(), text, text + text}) {
        work.write("several", header + base64(der) + between + "--b\n" + header + base64(der) + "--b--\n");
        expectFailure(tool(arguments), "norvcrypt: more than one CMS structure in several\n");
    }
    for (const std::string& behind : {std::string(), std::string("--b--\n"), text + "--b--\n", std::string("--")}) {
        work.write("several", header + base64(der + std::string("\0\n", 2)) + behind);
        expectGood(tool(arguments));
    }
}

TEST_F(VerifyToolTest, EmptyBody) {
    const Answer signature = sign({}, "");
    ASSERT_EQ(0, signature.status) << signature.err;
    work.write("sig", signature.out);
    expectGoodOver(bodyLine("standard input", 0), tool({"verify", "--signature", "sig"}, ""));
    EXPECT_EQ(1, tool({"verify", "--signature", "sig"}, "x").status);
}

TEST_F(VerifyToolTest, ChangedByteIsRefused) {
    signBody();
    std::string changed = body;
    changed[changed.size() / 2] ^= 1;
    const Answer answer = tool({"verify", "--signature", "sig"}, changed);
    EXPECT_EQ(1, answer.status);
    expectLines({"signer 1: NOT VERIFIED, the signature does not belong to this body and "
                 "certificate (event 0x3000052), certificate SHA-256 " +
                     alice().certificate.sha256() + " CN=alice,O=Interop,C=DE",
                 bodyLine("standard input", body.size()), trustLine},
                answer);
    EXPECT_EQ("", answer.err);
}

TEST_F(VerifyToolTest, MissingOptionsAreBadUsage) {
    expectFailure(tool({"sign", "--cert", "alice.pem"}), "--key is required");
    expectFailure(tool({"sign", "--key", "alice.key"}), "--cert is required");
    expectFailure(tool({"verify"}), "--signature is required");
    expectFailure(tool({}), "a command is missing: sign, ");
    expectFailure(tool({"sign", "--certificate", "x"}), "--certificate");
    expectFailure(tool({"digest", "--nonsense"}), "--nonsense");
    expectFailure(tool({"nonsense\x1B[31m\n"}),
                  "unknown command: nonsense\\x1B[31m\\x0A (norvcrypt --help tells more)");
}

TEST_F(VerifyToolTest, HelpAndVersionAreAnswers) {
    for (const char* option : {"--help", "--version"}) {
        const Answer answer = tool({option});
        EXPECT_EQ(0, answer.status);
        EXPECT_NE("", answer.out);
        EXPECT_EQ("", answer.err);
    }
    for (const char* command : {"sign", "verify", "encrypt", "decrypt", "genkey", "inspect", "digest", "demo"}) {
        const Answer answer = tool({command, "--help"});
        EXPECT_EQ(0, answer.status);
        EXPECT_NE(std::string::npos, answer.out.find(command));
        EXPECT_EQ("", answer.err);
    }
    EXPECT_NE(std::string::npos, tool({"sign", "--help"}).out.find("--passphrase-file"));
}

TEST_F(VerifyToolTest, NamesThatTheParserWouldTakeApart) {
    for (const char* name : {"[a,b]", "[]", "++", "\x01++", "%%", "{}"}) {
        work.write(name, body);
        const std::string signature = std::string(name) + ".p7s";
        ASSERT_EQ(0, sign({"--in", name, "--out", signature}).status) << name;
        // A byte that drives terminals is shown in its escaped form.
        const std::string shown = name[0] == '\x01' ? "\\x01++" : name;
        expectGood(tool({"verify", "--signature", signature, "--in", name}), shown);
    }
    for (const char* name : {"[a,b]", "\x01++"}) {
        ASSERT_EQ(0, sign({std::string("--in=") + name, "--out=sig"}).status) << name;
        EXPECT_EQ(0, tool({"verify", "--signature=sig", "--in", name}).status) << name;
    }
    work.write("--a=[b,c]", body);
    EXPECT_EQ(sha256(body) + "  --a=[b,c]\n", tool({"digest", "--", "--a=[b,c]"}).out);
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body", "[extra]"}), "unexpected argument [extra] (");
}

TEST_F(VerifyToolTest, VerdictThatCannotBeWrittenIsNoSuccess) {
    signBody();
    before = work.names();
    expectFailure(norvcrypt(Command{.arguments = {"verify", "--signature", "sig", "--in", "body"},
                                    .outputFile = "/dev/full",
                                    .directory = work.directory()}),
                  "cannot write standard output: No space left on device");
}

TEST_F(VerifyToolTest, GivenCertificateIsUsed) {
    signBody();
    work.write("several.pem", root().certificate.pem() + alice().certificate.pem());
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "alice.pem"}));
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "several.pem"}));
}

TEST_F(VerifyToolTest, GivenCertificateOfSomebodyElseIsRefused) {
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig", "--in", "body", "--cert", "root.pem"});
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ("signer 1: NOT VERIFIED, no certificate with issuer CN=Interop Root,O=Interop,C=DE serial number 2001",
              linesOf(answer.out).at(0));
}

TEST_F(VerifyToolTest, StrangersCertificateWithTheSameNameAndNumberDoesNotHideTheSigner) {
    const Identity impostor = norvauthority::issue(
        {.subject = {{"CN", "impostor"}}, .key = norvauthority::Key::rsa(), .issuer = &root(), .serial = "2001"});
    work.write("several.pem", impostor.certificate.pem() + alice().certificate.pem());
    signBody();
    expectGood(tool({"verify", "--signature", "sig", "--in", "body", "--cert", "several.pem"}));
    work.write("impostor.pem", impostor.certificate.pem());
    EXPECT_EQ(1, tool({"verify", "--signature", "sig", "--in", "body", "--cert", "impostor.pem"}).status);
}

TEST_F(VerifyToolTest, NegativeSerialNumbersVerify) {
    const Identity odd = norvauthority::issue(
        {.subject = {{"CN", "odd"}}, .key = norvauthority::Key::rsa(), .issuer = &root(), .serial = "-7f01"});
    work.write("alice.pem", odd.certificate.pem());
    work.write("alice.key", odd.key.pkcs8Pem());
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig", "--in", "body"});
    EXPECT_EQ(0, answer.status) << answer.out << answer.err;
    const Answer refused = tool({"verify", "--signature", "sig", "--in", "body", "--cert", "root.pem"});
    EXPECT_EQ(1, refused.status);
    EXPECT_NE(std::string::npos, refused.out.find("serial number -7f01"));
}

TEST_F(VerifyToolTest, HostileNamesCannotForgeAVerdict) {
    const Identity evil =
        norvauthority::issue({.subject = {{"CN", "evil\nsigner 2: good signature\x1B[2J\xFF", V_ASN1_T61STRING}},
                              .key = norvauthority::Key::rsa(),
                              .issuer = &root(),
                              .serial = "66"});
    work.write("alice.pem", evil.certificate.pem());
    work.write("alice.key", evil.key.pkcs8Pem());
    signBody();
    const Answer answer = tool({"verify", "--signature", "sig"}, "another body");
    EXPECT_EQ(1, answer.status);
    EXPECT_EQ(4U, linesOf(answer.out).size());
    EXPECT_NE(std::string::npos, answer.out.find("CN=evil\\0Asigner 2: good signature\\1B[2J\xC3\xBF"));
}

TEST_F(VerifyToolTest, HostileFileNamesCannotForgeAnErrorLine) {
    expectFailure(tool({"verify", "--signature", "no\nnorvcrypt: good\xC2\x9B\xFF"}),
                  "cannot open no\\x0Anorvcrypt: good\\xC2\\x9B\\xFF: No such file or directory");
}

TEST_F(VerifyToolTest, StructuresThatAreNoSignature) {
    work.write("sig", std::string("no signature at all"));
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "no CMS structure in sig");
    work.write("sig", std::string());
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "no CMS structure in sig");
    work.write("sig", alice().certificate.der);
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}),
                  "norvcrypt: cannot judge the signatures in sig: ");
    work.write("sig", norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d010701"),
                                                 norvauthority::der::octetString({0x61})));
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "sig holds no signature but pkcs7-data");
    work.write("sig", norvauthority::contentInfo(norvauthority::fromHex("2a864886f70d01079080808003"), std::nullopt));
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}),
                  "sig holds no signature but 1.2.840.113549.1.7.4294967299");
}

TEST_F(VerifyToolTest, TruncatedSignatureIsMalformed) {
    signBody();
    before = work.names();
    std::string der = work.read("sig");
    der.resize(der.size() - 1);
    work.write("sig", der);
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body"}), "the source ended before the structure");
}

TEST_F(VerifyToolTest, MissingBody) {
    signBody();
    before = work.names();
    expectFailure(tool({"verify", "--signature", "sig", "--in", "none"}),
                  "cannot open none: No such file or directory");
}

TEST_F(VerifyToolTest, EmptyNamesAreNoDefaults) {
    signBody();
    before = work.names();
    const std::string text = "cannot open : No such file or directory";
    expectFailure(tool({"verify", "--signature", "sig", "--in", "body", "--cert", ""}), text);
    expectFailure(tool({"verify", "--signature", "sig", "--in", ""}, body), text);
    expectFailure(tool({"verify", "--signature", "", "--in", "body"}), text);
    expectFailure(sign({"--in", "", "--out", "new"}, body), text);
    expectFailure(sign({"--in", "body", "--chain", "", "--out", "new"}), text);
    expectFailure(sign({"--in", "body", "--passphrase-file", "", "--out", "new"}), text);
    expectFailure(sign({"--in", "body", "--out", ""}), "cannot write : No such file or directory");
}

TEST_F(VerifyToolTest, EndlessSignatureIsNotTakenIntoMemory) {
    const Answer answer = run({.arguments = {"/bin/sh", "-c", "ulimit -t 100; exec \"$0\" verify --signature /dev/zero",
                                             norvtest::norvcryptProgram}});
    EXPECT_EQ(2, answer.status);
    EXPECT_EQ("norvcrypt: /dev/zero is larger than 256 MiB\n", answer.err);
}

} // namespace
