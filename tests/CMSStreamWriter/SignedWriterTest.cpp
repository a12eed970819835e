// Everything that is written here is verified by the openssl program; signatures on Edwards curves, which its version 3.0
// does not verify in CMS, by hand with OpenSSL's primitives.
#include "SignedWriting.h"

#include <functional>

using namespace signedtest;
using ::testing::ValuesIn;

namespace {

struct Algorithm {
    const char* name;
    std::function<const Identity&()> identity;
    std::optional<Hasher::Type> digest;
    SignedWriter::RsaScheme scheme = SignedWriter::RsaScheme::pkcs1;
    const char* signature;  ///< as openssl prints the algorithm of the signature
    const char* digestName; ///< and that of the digest
};
void PrintTo(const Algorithm& algorithm, std::ostream* out) {
    *out << algorithm.name;
}

constexpr auto pss = SignedWriter::RsaScheme::pss;
constexpr auto pkcs1 = SignedWriter::RsaScheme::pkcs1;
const Identity& rsa() {
    return identities().rsa;
}
const Identity& ec() {
    return identities().ec;
}
const Identity& pssOnly() {
    static const Identity made = person("pssonly", "955", pssKey());
    return made;
}
const Identity& pssSha512() {
    static const Identity made = person("psssha512", "9512", pssKey(EVP_sha512(), 32));
    return made;
}

const std::vector<Algorithm> algorithms{
    {"Rsa", rsa, std::nullopt, pkcs1, "rsaEncryption", "sha256"},
    {"RsaSha1", rsa, Hasher::SHA1, pkcs1, "rsaEncryption", "sha1"},
    {"RsaSha224", rsa, Hasher::SHA224, pkcs1, "rsaEncryption", "sha224"},
    {"RsaSha384", rsa, Hasher::SHA384, pkcs1, "rsaEncryption", "sha384"},
    {"RsaSha512", rsa, Hasher::SHA512, pkcs1, "rsaEncryption", "sha512"},
    {"RsaSha3x224", rsa, Hasher::SHA3_224, pkcs1, "RSA-SHA3-224", "sha3-224"},
    {"RsaSha3x256", rsa, Hasher::SHA3_256, pkcs1, "RSA-SHA3-256", "sha3-256"},
    {"RsaSha3x384", rsa, Hasher::SHA3_384, pkcs1, "RSA-SHA3-384", "sha3-384"},
    {"RsaSha3x512", rsa, Hasher::SHA3_512, pkcs1, "RSA-SHA3-512", "sha3-512"},
    {"Pss", rsa, std::nullopt, pss, "rsassaPss", "sha256"},
    {"PssSha1", rsa, Hasher::SHA1, pss, "rsassaPss", "sha1"},
    {"PssSha224", rsa, Hasher::SHA224, pss, "rsassaPss", "sha224"},
    {"PssSha384", rsa, Hasher::SHA384, pss, "rsassaPss", "sha384"},
    {"PssSha512", rsa, Hasher::SHA512, pss, "rsassaPss", "sha512"},
    {"PssSha3x256", rsa, Hasher::SHA3_256, pss, "rsassaPss", "sha3-256"},
    {"PssKeyAlone", pssOnly, Hasher::SHA384, pkcs1, "rsassaPss", "sha384"},
    {"PssKeyForOneDigest", pssSha512, std::nullopt, pkcs1, "rsassaPss", "sha512"},
    {"EcP256", ec, std::nullopt, pkcs1, "ecdsa-with-SHA256", "sha256"},
    {"EcP384", p384, std::nullopt, pkcs1, "ecdsa-with-SHA384", "sha384"},
    {"EcP521", p521, std::nullopt, pkcs1, "ecdsa-with-SHA512", "sha512"},
    {"EcSha1", ec, Hasher::SHA1, pkcs1, "ecdsa-with-SHA1", "sha1"},
    {"EcSha224", ec, Hasher::SHA224, pkcs1, "ecdsa-with-SHA224", "sha224"},
    {"EcP256Sha512", ec, Hasher::SHA512, pkcs1, "ecdsa-with-SHA512", "sha512"},
    {"EcSha3x256", ec, Hasher::SHA3_256, pkcs1, "ecdsa_with_SHA3-256", "sha3-256"},
};

class Verified : public ::testing::TestWithParam<Algorithm> {
protected:
    [[nodiscard]] Signer signer() const {
        Signer made(pairOf(GetParam().identity()));
        made.digest = GetParam().digest;
        made.rsaScheme = GetParam().scheme;
        return made;
    }
    OpenSsl m_openssl;
};

enum class Form { ber, derAnnounced, derSpilled, detached };
constexpr Form forms[]{Form::ber, Form::derAnnounced, Form::derSpilled, Form::detached};

Options inForm(const Signer& signer, Form form, std::size_t length) {
    Options options = optionsFor({signer});
    options.content = form == Form::detached ? Content::detached : Content::attached;
    options.encoding = form == Form::ber ? Encoding::ber : Encoding::der;
    if (form == Form::derAnnounced) {
        options.length = length;
    }
    return options;
}

} // namespace

TEST_P(Verified, InEveryFormWithAndWithoutAttributesByBothNames) {
    const Bytes body = bodyOf(10000);
    for (unsigned int turn = 0; turn < 8; ++turn) { // each form with two of the four others, which differ in both
        Signer made = signer();
        made.signedAttributes = turn % 2 == 0;
        made.namedBy =
            (turn / 4 + turn) % 2 == 0 ? CMS::NamedBy::issuerAndSerialNumber : CMS::NamedBy::subjectKeyIdentifier;
        const Form form = forms[(turn / 2 + turn % 2) % 4];
        const Bytes structure = written(inForm(made, form, body.size()), body, 3000);
        EXPECT_EQ(m_openssl.verify(structure, form == Form::detached ? &body : nullptr), textOf(body)) << turn;
        if (form != Form::ber) {
            EXPECT_EQ(reencoded(structure), structure);
        }
    }
}

TEST_P(Verified, NamesItsAlgorithms) {
    const std::string text = m_openssl.print(written(optionsFor({signer()}), bodyOf(10)));
    const auto expectNamed = [&text](const std::string& field, const std::string& name) {
        const std::size_t at = text.find(field + ":", text.find("signerInfos:"));
        ASSERT_NE(at, std::string::npos) << text;
        const std::string line = text.substr(text.find("algorithm: ", at));
        EXPECT_EQ(line.substr(0, line.find(" (")), "algorithm: " + name);
    };
    expectNamed("digestAlgorithm", GetParam().digestName);
    expectNamed("signatureAlgorithm", GetParam().signature);
}

TEST_P(Verified, AnotherBodyIsRefused) {
    Options options = optionsFor({signer()});
    options.content = Content::detached;
    const Bytes structure = written(options, bodyOf(100));
    const Bytes other = bodyOf(101);
    EXPECT_EQ(m_openssl.verify(structure, &other).substr(0, 8), "refused:");
}

INSTANTIATE_TEST_SUITE_P(SignedWriter, Verified, ValuesIn(algorithms),
                         [](const auto& algorithm) { return std::string(algorithm.param.name); });

TEST(SignedWriter, BodiesOfEverySizeInEveryForm) {
    OpenSsl openssl;
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 65536U, 65537U, 1U << 20U}) {
        const Bytes body = bodyOf(size);
        for (const Form form : forms) {
            for (const std::size_t piece : {std::size_t{0}, std::size_t{1000}}) {
                const Identity& identity = piece == 0 ? identities().rsa : identities().ec;
                const Bytes structure = written(inForm(Signer(pairOf(identity)), form, size), body, piece);
                ASSERT_EQ(openssl.verify(structure, form == Form::detached ? &body : nullptr), textOf(body))
                    << size << ' ' << static_cast<int>(form) << ' ' << piece;
                if (form != Form::ber) {
                    ASSERT_EQ(reencoded(structure), structure);
                }
            }
        }
    }
}

TEST(SignedWriter, PiecesOfAllSizesMixedKeepTheirOrder) {
    OpenSsl openssl;
    const Bytes body = bodyOf(300000);
    Norvane::MemoryMediaOut target;
    SignedWriter writer(optionsFor(identities().rsa));
    writer.attach(target);
    writeMixed(writer, body);
    writer.end();
    EXPECT_EQ(openssl.verify(bytesOf(target.content())), textOf(body));
}

TEST(SignedWriter, SeveralSignersWithDifferentDigestsAndKeys) {
    OpenSsl openssl;
    const Bytes body = bodyOf(5000);
    std::vector<Signer> signers{Signer(pairOf(identities().rsa)), Signer(pairOf(identities().otherRsa)),
                                Signer(pairOf(p384())), Signer(pairOf(identities().ec))};
    signers[1].digest = Hasher::SHA512;
    signers[1].rsaScheme = pss;
    signers[2].namedBy = CMS::NamedBy::subjectKeyIdentifier;
    signers[3].signedAttributes = false;
    for (const Form form : forms) {
        Options options = inForm(signers[0], form, body.size());
        options.signers = signers;
        const Bytes structure = written(options, body);
        EXPECT_EQ(openssl.verify(structure, form == Form::detached ? &body : nullptr), textOf(body));
        const CmsStructure made = decoded(structure);
        EXPECT_EQ(sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(made.get())), 4);
        if (form != Form::ber) {
            EXPECT_EQ(reencoded(structure), structure);
        }
    }
}

TEST(SignedWriter, SigningCertificateIsTheOneThatOpensslDemands) {
    OpenSsl openssl;
    const Bytes body = bodyOf(100);
    for (const Hasher::Type digest : {Hasher::SHA256, Hasher::SHA1, Hasher::SHA384, Hasher::SHA512}) {
        Signer signer(pairOf(identities().rsa));
        signer.signingCertificateDigest = digest;
        EXPECT_EQ(openssl.verify(written(optionsFor({signer}), body), nullptr, {"-cades"}), textOf(body)) << digest;
    }
    Signer without(pairOf(identities().rsa));
    without.signingCertificate = false;
    EXPECT_EQ(openssl.verify(written(optionsFor({without}), body), nullptr, {"-cades"}).substr(0, 8), "refused:");
}

namespace {

/// Verifies the only signer of a structure by hand: its digest, then its signature over the attributes as a SET.
void expectGoodByHand(const Bytes& structure, const Bytes& body, const Identity& identity, const EVP_MD* digest) {
    const CmsStructure made = decoded(structure);
    const CMS_SignerInfo* signer = signerOf(made);
    Bytes expected(64);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digesting(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    ASSERT_EQ(EVP_DigestInit_ex(digesting.get(), digest, nullptr), 1);
    ASSERT_EQ(EVP_DigestUpdate(digesting.get(), body.data(), body.size()), 1);
    ASSERT_EQ((EVP_MD_get_flags(digest) & EVP_MD_FLAG_XOF) != 0
                  ? EVP_DigestFinalXOF(digesting.get(), expected.data(), expected.size())
                  : EVP_DigestFinal_ex(digesting.get(), expected.data(), nullptr),
              1);
    const auto* told = static_cast<const ASN1_OCTET_STRING*>(
        CMS_signed_get0_data_by_OBJ(signer, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    ASSERT_NE(told, nullptr);
    EXPECT_EQ(Bytes(told->data, told->data + told->length), expected);

    Bytes all;
    for (int index = 0; index < CMS_signed_get_attr_count(signer); ++index) {
        unsigned char* octets = nullptr;
        const int length = i2d_X509_ATTRIBUTE(CMS_signed_get_attr(signer, index), &octets);
        all.insert(all.end(), octets, octets + length);
        OPENSSL_free(octets);
    }
    const Bytes set = norvauthority::der::element(0x31, all);
    const ASN1_OCTET_STRING* signature = CMS_SignerInfo_get0_signature(const_cast<CMS_SignerInfo*>(signer));
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> verifying(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    ASSERT_EQ(EVP_DigestVerifyInit(verifying.get(), nullptr, nullptr, nullptr, identity.key.get()), 1);
    EXPECT_EQ(EVP_DigestVerify(verifying.get(), signature->data, static_cast<std::size_t>(signature->length),
                               set.data(), set.size()),
              1);
}

} // namespace

TEST(SignedWriter, EdwardsCurvesSignAttributes) {
    for (const std::size_t size : {0U, 1U, 5000U, 100000U}) {
        const Bytes body = bodyOf(size);
        for (const Form form : forms) {
            const Bytes of25519 = written(inForm(Signer(pairOf(ed25519())), form, size), body);
            expectGoodByHand(of25519, body, ed25519(), EVP_sha512());
            const Bytes of448 = written(inForm(Signer(pairOf(ed448())), form, size), body);
            expectGoodByHand(of448, body, ed448(), EVP_shake256());
            if (form != Form::ber) {
                EXPECT_EQ(reencoded(of25519), of25519);
                EXPECT_EQ(reencoded(of448), of448);
            }
        }
    }
}

TEST(SignedWriter, Ed25519IsVerifiedByGnuTls) {
    if (!interop::installed("certtool")) {
        GTEST_SKIP() << "certtool is not installed";
    }
    const norvtest::TemporaryFolder folder;
    const Bytes body = bodyOf(5000);
    const std::string authority = folder.write("authority.pem", identities().authority.certificate.pem());
    const std::string bodyFile = folder.write("body", textOf(body));
    const auto judged = [&](const Bytes& structure, bool detached) {
        interop::Command command{.arguments = {"certtool", "--p7-verify", "--inder", "--load-ca-certificate", authority,
                                               "--infile", folder.write("structure", textOf(structure))}};
        if (detached) {
            command.arguments.insert(command.arguments.end(), {"--load-data", bodyFile});
        }
        const interop::Answer answer = interop::run(command);
        const bool good = (answer.out + answer.err).find("Signature status: ok") != std::string::npos;
        EXPECT_EQ(answer.status == 0, good) << answer.out << answer.err;
        return good;
    };
    for (const Form form : forms) {
        const bool detached = form == Form::detached;
        EXPECT_TRUE(judged(written(inForm(Signer(pairOf(ed25519())), form, body.size()), body), detached));
    }
    EXPECT_FALSE(judged(written(inForm(Signer(pairOf(ed25519())), Form::detached, 100), bodyOf(100)), true));
}

TEST(SignedWriter, EdwardsCurvesAreNamedAsRfc8419Demands) {
    OpenSsl openssl;
    const std::string of25519 = openssl.parse(written(optionsFor(ed25519()), bodyOf(1)));
    EXPECT_NE(of25519.find(":sha512\n"), std::string::npos) << of25519;
    EXPECT_NE(of25519.find(":ED25519\n"), std::string::npos);
    const std::string of448 = openssl.parse(written(optionsFor(ed448()), bodyOf(1)));
    EXPECT_NE(of448.find(":2.16.840.1.101.3.4.2.18\n"), std::string::npos) << of448; // id-shake256-len
    EXPECT_NE(of448.find("INTEGER           :0200\n"), std::string::npos);           // of 512 bits
    EXPECT_NE(of448.find(":ED448\n"), std::string::npos);
}
