#include "support/Cms.h"

#include <set>

using namespace cmstest;
namespace der = norvauthority::der;
using CMS::ContentInfo;
using ::testing::TestWithParam;

namespace {

/// The content octets of 1.2.840.113549.1 followed by `tail`.
Bytes pkcsOid(const Bytes& tail) {
    Bytes octets{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01};
    octets.insert(octets.end(), tail.begin(), tail.end());
    return octets;
}

CMS::RefContentInfo decoded(const Bytes& structure) {
    PiecewiseIn in(structure);
    return CMS::RefContentInfo(in);
}

/// A SignedData with no more in it than has to be.
Bytes emptySigned(const Bytes& version = der::integer("1")) {
    return norvauthority::contentInfo(
        pkcsOid({7, 2}),
        der::sequence({version, der::set({}), der::sequence({der::rawOid(pkcsOid({7, 1}))}), der::set({})}));
}

Bytes issuerAndSerial(const Bytes& serial) {
    return der::sequence({norvauthority::Name{{"CN", "Issuer"}}.der(), serial});
}

Bytes rsaAlgorithm() {
    return der::sequence({der::oid("1.2.840.113549.1.1.1"), der::null()});
}

Bytes recipient(const Bytes& serial) {
    return der::sequence({der::integer("0"), issuerAndSerial(serial), rsaAlgorithm(), der::octetString({1, 2, 3})});
}

Bytes signerInfo(const Bytes& serial) {
    return der::sequence({der::integer("1"), issuerAndSerial(serial),
                          der::sequence({der::oid("2.16.840.1.101.3.4.2.1"), der::null()}), rsaAlgorithm(),
                          der::octetString({9, 8, 7, 6})});
}

Bytes signedWithSigners(const std::vector<Bytes>& signers) {
    return norvauthority::contentInfo(
        pkcsOid({7, 2}), der::sequence({der::integer("1"), der::set({}), der::sequence({der::rawOid(pkcsOid({7, 1}))}),
                                        der::set(signers)}));
}

Bytes enveloped(const std::vector<Bytes>& recipients, const Bytes& version = der::integer("0")) {
    const Bytes content =
        der::sequence({der::rawOid(pkcsOid({7, 1})),
                       der::sequence({der::oid("1.2.840.113549.3.7"), der::octetString({1, 2, 3, 4, 5, 6, 7, 8})}),
                       der::element(der::context(0), {0xCA, 0xFE})});
    return norvauthority::contentInfo(pkcsOid({7, 3}), der::sequence({version, der::set(recipients), content}));
}

struct TypeCase {
    const char* name;
    Bytes octets;
    int number;
    const char* text;
};

class TypeNumber : public TestWithParam<TypeCase> {};

} // namespace

TEST_P(TypeNumber, IsThatOfTheTable) {
    const RecordedLog log;
    const auto structure = norvauthority::pkcs7(norvauthority::contentInfo(GetParam().octets, std::nullopt));
    const ContentInfo content(structure.get());
    EXPECT_EQ(content.type().asString(), GetParam().text);
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), GetParam().number);
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), GetParam().number);
    EXPECT_TRUE(log.records().empty());
}
INSTANTIATE_TEST_SUITE_P(CMS, TypeNumber,
                         ::testing::Values(TypeCase{"Data", pkcsOid({7, 1}), 1, "1.2.840.113549.1.7.1"},
                                           TypeCase{"SignedData", pkcsOid({7, 2}), 2, "1.2.840.113549.1.7.2"},
                                           TypeCase{"EnvelopedData", pkcsOid({7, 3}), 3, "1.2.840.113549.1.7.3"},
                                           TypeCase{"DigestedData", pkcsOid({7, 5}), 4, "1.2.840.113549.1.7.5"},
                                           TypeCase{"EncryptedData", pkcsOid({7, 6}), 5, "1.2.840.113549.1.7.6"},
                                           TypeCase{"SmimeAttributes", pkcsOid({9, 16, 2}), 6,
                                                    "1.2.840.113549.1.9.16.2"}),
                         [](const auto& tested) { return std::string(tested.param.name); });

namespace {
class WrappedArc : public TestWithParam<TypeCase> {};
} // namespace

// 2^32 + n is 0x90 0x80 0x80 0x80 n in base 128 and prints as n, since arcs are accumulated in 32 bits.
TEST_P(WrappedArc, PrintsAlikeButIsUnknownAndLogged) {
    const RecordedLog log;
    const auto structure = norvauthority::pkcs7(norvauthority::contentInfo(GetParam().octets, std::nullopt));
    const ContentInfo content(structure.get());
    ASSERT_EQ(content.type().asString(), GetParam().text);
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), 0);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records().front().event, 0x300005DU);
    EXPECT_EQ(log.records().front().fields, std::vector<std::string>{GetParam().text});
}
INSTANTIATE_TEST_SUITE_P(
    CMS, WrappedArc,
    ::testing::Values(TypeCase{"Data", pkcsOid({7, 0x90, 0x80, 0x80, 0x80, 1}), 0, "1.2.840.113549.1.7.1"},
                      TypeCase{"SignedData", pkcsOid({7, 0x90, 0x80, 0x80, 0x80, 2}), 0, "1.2.840.113549.1.7.2"},
                      TypeCase{"EnvelopedData", pkcsOid({7, 0x90, 0x80, 0x80, 0x80, 3}), 0, "1.2.840.113549.1.7.3"},
                      TypeCase{"DigestedData", pkcsOid({7, 0x90, 0x80, 0x80, 0x80, 5}), 0, "1.2.840.113549.1.7.5"},
                      TypeCase{"EncryptedData", pkcsOid({7, 0x90, 0x80, 0x80, 0x80, 6}), 0, "1.2.840.113549.1.7.6"},
                      TypeCase{"SmimeAttributes", pkcsOid({9, 16, 0x90, 0x80, 0x80, 0x80, 2}), 0,
                               "1.2.840.113549.1.9.16.2"},
                      TypeCase{"MiddleArc", pkcsOid({0x90, 0x80, 0x80, 0x80, 7, 2}), 0, "1.2.840.113549.1.7.2"}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST(ContentInfo, SignedAndEnvelopedIsUnknownAndLoggedEachTime) {
    const RecordedLog log;
    const auto structure = norvauthority::pkcs7(norvauthority::contentInfo(pkcsOid({7, 4}), std::nullopt));
    const ContentInfo content(structure.get());
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), 0);
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), 0);
    ASSERT_EQ(log.records().size(), 2U);
    for (const auto& record : log.records()) {
        EXPECT_EQ(record.event, 0x300005DU);
        EXPECT_EQ(record.level, 0);
        EXPECT_EQ(record.format, "%s");
        EXPECT_EQ(record.fields, std::vector<std::string>{"1.2.840.113549.1.7.4"});
    }
}

TEST(ContentInfo, EnumeratorsHaveFixedNumbers) {
    EXPECT_EQ(static_cast<int>(ContentInfo::Unknown), 0);
    EXPECT_EQ(static_cast<int>(ContentInfo::Data), 1);
    EXPECT_EQ(static_cast<int>(ContentInfo::SignedData), 2);
    EXPECT_EQ(static_cast<int>(ContentInfo::EnvelopedData), 3);
    EXPECT_EQ(static_cast<int>(ContentInfo::DigestedData), 4);
    EXPECT_EQ(static_cast<int>(ContentInfo::EncryptedData), 5);
    EXPECT_EQ(static_cast<int>(ContentInfo::SmimeAttributes), 6);
    EXPECT_EQ(sizeof(ContentInfo::ContentType), sizeof(int));
}

TEST(ContentInfo, OverNullHasTypeZeroAndAnEmptyType) {
    const RecordedLog log;
    const ContentInfo content(nullptr);
    EXPECT_EQ(static_cast<int>(content.typeAsEnum()), 0);
    EXPECT_EQ(content.type().asString(), "");
    EXPECT_EQ(content.type().object(), nullptr);
    EXPECT_EQ(content.structure(), nullptr);
    EXPECT_TRUE(log.records().empty());
}

TEST(ContentInfo, TypeIsCachedAndNeverRefreshed) {
    const auto structure = norvauthority::pkcs7(emptySigned());
    const ContentInfo content(structure.get());
    ASSERT_EQ(content.typeAsEnum(), ContentInfo::SignedData);
    ASN1_OBJECT* before = std::exchange(structure->type, OBJ_nid2obj(NID_pkcs7_data));
    EXPECT_EQ(content.typeAsEnum(), ContentInfo::SignedData);
    EXPECT_EQ(&content.type(), &content.type());
    structure->type = before;
}

TEST(ContentInfo, DoesNotOwnWhatItWasGiven) {
    const auto structure = norvauthority::pkcs7(emptySigned());
    { const ContentInfo content(structure.get()); }
    EXPECT_EQ(derOf(structure.get()), emptySigned());
}

TEST(RefContentInfo, FalseIsANullHandle) {
    const CMS::RefContentInfo none(false);
    EXPECT_TRUE(none.isNull());
    EXPECT_EQ(static_cast<pkcs7_st*>(none), nullptr);
    const Caught failure = caught([&] { static_cast<void>(none->type()); });
    EXPECT_EQ(failure.where, "operator->");
    EXPECT_EQ(failure.code, 1);
}

TEST(RefContentInfo, TrueOwnsANewStructure) {
    CMS::RefContentInfo made(true);
    ASSERT_FALSE(made.isNull());
    ASSERT_NE(static_cast<pkcs7_st*>(made), nullptr);
    ASSERT_EQ(PKCS7_set_type(made, NID_pkcs7_signed), 1);
    EXPECT_EQ(made->typeAsEnum(), ContentInfo::SignedData);
    EXPECT_EQ(made->referenceCount(), 1);
}

TEST(RefContentInfo, OverANullStructureIsAHandleOnABodyOverNull) {
    const CMS::RefContentInfo handle(static_cast<const pkcs7_st*>(nullptr));
    EXPECT_FALSE(handle.isNull());
    EXPECT_EQ(static_cast<pkcs7_st*>(handle), nullptr);
    EXPECT_EQ(static_cast<int>(handle->typeAsEnum()), 0);
}

TEST(RefContentInfo, CopiesShareTheBody) {
    CMS::RefContentInfo first = decoded(emptySigned());
    const CMS::RefContentInfo second = first;
    EXPECT_EQ(first->referenceCount(), 2);
    EXPECT_EQ(static_cast<pkcs7_st*>(first), static_cast<pkcs7_st*>(second));
    first = CMS::RefContentInfo(false);
    EXPECT_EQ(second->referenceCount(), 1);
    EXPECT_EQ(second->typeAsEnum(), ContentInfo::SignedData);
}

TEST(SignedData, WithoutCertificatesIsEmptyOnEachCall) {
    const CMS::RefContentInfo message = decoded(emptySigned());
    const CMS::SignedData data = CMS::signedData(message);
    EXPECT_TRUE(data.certificates().empty());
    EXPECT_TRUE(data.certificates().empty());
    EXPECT_TRUE(data.certificateRevocationLists().empty());
    EXPECT_TRUE(data.signerInfo().empty());
    EXPECT_EQ(data.version().asInt(), 1);
}

/// Who works on the structure with OpenSSL finds all of it there, whatever was asked for before.
TEST(RefContentInfo, LendsTheWholeStructure) {
    const CMS::RefContentInfo signedMessage = decoded(signedByOpenssl(identities().rsa, bodyOf(10), "SHA256", 0));
    const pkcs7_st* structure = signedMessage;
    EXPECT_EQ(sk_X509_num(structure->d.sign->cert), 1);
    const CMS::RefContentInfo envelope = decoded(enveloped({recipient(der::integer("7"))}));
    structure = envelope;
    EXPECT_EQ(sk_PKCS7_RECIP_INFO_num(structure->d.enveloped->recipientinfo), 1);
    EXPECT_EQ(ASN1_STRING_length(structure->d.enveloped->enc_data->enc_data), 2);
}

TEST(SignedData, OverNullIsEmptyThroughout) {
    const CMS::SignedData data(nullptr);
    EXPECT_EQ(data.version().object(), nullptr);
    EXPECT_TRUE(data.contentInfo().isNull());
    EXPECT_TRUE(data.certificates().empty());
    EXPECT_TRUE(data.certificateRevocationLists().empty());
    EXPECT_TRUE(data.signerInfo().empty());
}

TEST(SignedData, ThreeCertificatesComeInStackOrderAndBelongToTheStructure) {
    const auto& ids = identities();
    const Pkcs7 made(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
    ASSERT_EQ(PKCS7_content_new(made.get(), NID_pkcs7_data), 1);
    const std::vector<const Identity*> order{&ids.otherRsa, &ids.authority, &ids.rsa};
    for (const Identity* identity : order) {
        ASSERT_EQ(PKCS7_add_certificate(made.get(), identity->certificate.x509().get()), 1);
    }
    CMS::RefContentInfo message = decoded(derOf(made.get()));
    const CMS::SignedData data = CMS::signedData(message);
    const auto& certificates = data.certificates();
    ASSERT_EQ(certificates.size(), 3U);
    auto expected = order.begin();
    for (const auto& certificate : certificates) {
        EXPECT_TRUE(certificate == certificateOf(**expected));
        ++expected;
    }
    EXPECT_EQ(static_cast<x509_st*>(certificates.front()),
              sk_X509_value(static_cast<pkcs7_st*>(message)->d.sign->cert, 0));
    EXPECT_EQ(&data.certificates(), &certificates) << "the list is built once";
    // The sanitizers tell when destroying the handle frees less, or frees twice through the list.
    message = CMS::RefContentInfo(false);
}

TEST(SignedData, RevocationListsComeInStackOrder) {
    const auto& ids = identities();
    const auto list = [&](const char* number) {
        return norvauthority::issueList({.issuer = &ids.authority, .crlNumber = number});
    };
    const Pkcs7 made(PKCS7_new());
    ASSERT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
    ASSERT_EQ(PKCS7_content_new(made.get(), NID_pkcs7_data), 1);
    ASSERT_EQ(PKCS7_add_crl(made.get(), list("5").crl().get()), 1);
    ASSERT_EQ(PKCS7_add_crl(made.get(), list("3").crl().get()), 1);
    const CMS::SignedData data(made->d.sign);
    ASSERT_EQ(data.certificateRevocationLists().size(), 2U);
    EXPECT_EQ(data.certificateRevocationLists().front()->crlNumber().asInt(), 5);
    EXPECT_EQ(data.certificateRevocationLists().back()->crlNumber().asInt(), 3);
}

TEST(SignedData, ContentInfoLendsTheInnerStructure) {
    const CMS::RefContentInfo message = decoded(emptySigned());
    const CMS::SignedData data = CMS::signedData(message);
    ASSERT_FALSE(data.contentInfo().isNull());
    EXPECT_EQ(data.contentInfo()->typeAsEnum(), ContentInfo::Data);
    EXPECT_EQ(static_cast<pkcs7_st*>(data.contentInfo()), static_cast<pkcs7_st*>(message)->d.sign->contents);
}

TEST(SignedData, AnEmptyListIsLookedUpAgainAndAFullOneIsNot) {
    const CMS::RefContentInfo message = decoded(emptySigned());
    const CMS::SignedData data = CMS::signedData(message);
    EXPECT_TRUE(data.certificates().empty());
    ASSERT_EQ(PKCS7_add_certificate(message, identities().rsa.certificate.x509().get()), 1);
    EXPECT_EQ(data.certificates().size(), 1U);
    ASSERT_EQ(PKCS7_add_certificate(message, identities().ec.certificate.x509().get()), 1);
    EXPECT_EQ(data.certificates().size(), 1U);
}

TEST(SignedData, ANegativeVersionThrowsWhenItIsAskedFor) {
    const CMS::RefContentInfo message = decoded(emptySigned(der::integer("-1")));
    const CMS::SignedData data = CMS::signedData(message);
    for (int time = 0; time < 2; ++time) {
        const Caught failure = caught([&] { static_cast<void>(data.version()); });
        EXPECT_EQ(failure.where, "ASN1::Integer::Integer");
        EXPECT_EQ(failure.line, 25U);
    }
    EXPECT_EQ(data.contentInfo()->typeAsEnum(), ContentInfo::Data);
}

TEST(SignerInfo, TellsItsFields) {
    const CMS::RefContentInfo message =
        decoded(signedWithSigners({signerInfo(der::integer("1234")), signerInfo(der::integer("5678"))}));
    const CMS::SignedData data = CMS::signedData(message);
    ASSERT_EQ(data.signerInfo().size(), 2U);
    const CMS::SignerInfo& signer = data.signerInfo().front();
    EXPECT_EQ(signer.issuerAndSerialNumber().issuer().asString(), "CN=Issuer");
    EXPECT_EQ(signer.issuerAndSerialNumber().serialNumber().asInt(), 0x1234);
    EXPECT_EQ(signer.digestAlgorithm().asString(), "2.16.840.1.101.3.4.2.1");
    EXPECT_EQ(signer.signatureAlgorithm().asString(), "1.2.840.113549.1.1.1");
    EXPECT_EQ(Bytes(signer.signature().data(), signer.signature().data() + signer.signature().length()),
              (Bytes{9, 8, 7, 6}));
    EXPECT_EQ(static_cast<pkcs7_signer_info_st*>(signer),
              sk_PKCS7_SIGNER_INFO_value(static_cast<pkcs7_st*>(message)->d.sign->signer_info, 0));
    EXPECT_EQ(data.signerInfo().back().issuerAndSerialNumber().serialNumber().asInt(), 0x5678);
    EXPECT_EQ(&signer.digestAlgorithm(), &signer.digestAlgorithm());
}

TEST(SignerInfo, OverNullIsEmptyThroughout) {
    const CMS::SignerInfo signer(nullptr);
    EXPECT_EQ(static_cast<pkcs7_signer_info_st*>(signer), nullptr);
    EXPECT_EQ(signer.issuerAndSerialNumber().issuer().asString(), "");
    EXPECT_EQ(signer.issuerAndSerialNumber().serialNumber().object(), nullptr);
    EXPECT_EQ(signer.digestAlgorithm().asString(), "");
    EXPECT_EQ(signer.signatureAlgorithm().asString(), "");
    EXPECT_EQ(signer.signature().data(), nullptr);
}

TEST(SignerInfo, ANegativeSerialThrowsWhenItIsAskedForAndSparesTheOthers) {
    const CMS::RefContentInfo message =
        decoded(signedWithSigners({signerInfo(der::integer("-2")), signerInfo(der::integer("2"))}));
    const CMS::SignedData data = CMS::signedData(message);
    ASSERT_EQ(data.signerInfo().size(), 2U);
    const auto& odd = data.signerInfo().front().issuerAndSerialNumber();
    EXPECT_EQ(odd.issuer().asString(), "CN=Issuer");
    EXPECT_EQ(caught([&] { static_cast<void>(odd.serialNumber()); }).line, 25U);
    EXPECT_EQ(data.signerInfo().back().issuerAndSerialNumber().serialNumber().asInt(), 2);
}

TEST(EnvelopedData, TellsItsFields) {
    const CMS::RefContentInfo message =
        decoded(enveloped({recipient(der::integer("7")), recipient(der::integer("8"))}));
    ASSERT_EQ(message->typeAsEnum(), ContentInfo::EnvelopedData);
    const CMS::EnvelopedData data = CMS::envelopedData(message);
    EXPECT_EQ(data.version().asInt(), 0);
    ASSERT_EQ(data.recipientInfo().size(), 2U);
    EXPECT_EQ(data.recipientInfo().front().issuerAndSerialNumber().serialNumber().asInt(), 7);
    EXPECT_EQ(data.recipientInfo().back().issuerAndSerialNumber().serialNumber().asInt(), 8);
    EXPECT_EQ(data.recipientInfo().front().issuerAndSerialNumber().issuer().asString(), "CN=Issuer");
    const CMS::EncryptedContentInfo& content = data.contentInfo();
    EXPECT_EQ(content.contentType().asString(), "1.2.840.113549.1.7.1");
    EXPECT_EQ(content.algorithm().asString(), "1.2.840.113549.3.7");
    EXPECT_EQ(Bytes(content.data().data(), content.data().data() + content.data().length()), (Bytes{0xCA, 0xFE}));
    const CMS::EncapsulatedContentInfo same(static_cast<pkcs7_st*>(message)->d.enveloped->enc_data);
    EXPECT_EQ(same.contentType().asString(), "1.2.840.113549.1.7.1");
    EXPECT_EQ(same.data().length(), 2U);
}

TEST(EnvelopedData, OverNullIsEmptyThroughout) {
    const CMS::EnvelopedData data(nullptr);
    EXPECT_EQ(data.version().object(), nullptr);
    EXPECT_TRUE(data.recipientInfo().empty());
    EXPECT_EQ(data.contentInfo().contentType().asString(), "");
    EXPECT_EQ(data.contentInfo().algorithm().asString(), "");
    EXPECT_EQ(data.contentInfo().data().data(), nullptr);
    const CMS::EncapsulatedContentInfo content(nullptr);
    EXPECT_EQ(content.contentType().asString(), "");
    EXPECT_EQ(content.data().data(), nullptr);
    EXPECT_EQ(CMS::RecipientInfo(nullptr).issuerAndSerialNumber().issuer().asString(), "");
}

TEST(EnvelopedData, ANegativeVersionThrowsWhenItIsAskedFor) {
    const CMS::RefContentInfo message = decoded(enveloped({}, der::integer("-1")));
    const CMS::EnvelopedData data = CMS::envelopedData(message);
    EXPECT_EQ(caught([&] { static_cast<void>(data.version()); }).line, 25U);
    EXPECT_TRUE(data.recipientInfo().empty());
}

TEST(RecipientInfo, CopiesKeepNameAndSerial) {
    const CMS::RefContentInfo message = decoded(enveloped({recipient(der::integer("7"))}));
    const CMS::EnvelopedData data = CMS::envelopedData(message);
    const CMS::RecipientInfo& original = data.recipientInfo().front();
    static_cast<void>(original.issuerAndSerialNumber().serialNumber());
    const CMS::RecipientInfo copy = original;
    EXPECT_EQ(copy.issuerAndSerialNumber().serialNumber(), original.issuerAndSerialNumber().serialNumber());
    EXPECT_EQ(copy.issuerAndSerialNumber().issuer(), original.issuerAndSerialNumber().issuer());
}

TEST(Views, CopiesAndAssignedOnesTellTheSame) {
    const CMS::RefContentInfo signedMessage = decoded(signedWithSigners({signerInfo(der::integer("5"))}));
    const CMS::RefContentInfo envelope = decoded(enveloped({recipient(der::integer("7"))}));
    const CMS::SignedData original = CMS::signedData(signedMessage);
    const CMS::SignedData copy = original;
    CMS::SignedData assigned(nullptr);
    assigned = copy;
    for (const CMS::SignedData* data : {&copy, static_cast<const CMS::SignedData*>(&assigned)}) {
        EXPECT_EQ(data->version().asInt(), 1);
        EXPECT_EQ(data->signerInfo().size(), 1U);
    }
    CMS::SignerInfo signer(nullptr);
    signer = assigned.signerInfo().front();
    EXPECT_EQ(signer.issuerAndSerialNumber().serialNumber().asInt(), 5);
    EXPECT_EQ(static_cast<pkcs7_signer_info_st*>(signer),
              static_cast<pkcs7_signer_info_st*>(original.signerInfo().front()));

    const CMS::EnvelopedData envelopeCopy = CMS::EnvelopedData(CMS::envelopedData(envelope));
    CMS::EnvelopedData envelopeAssigned(nullptr);
    envelopeAssigned = envelopeCopy;
    const CMS::EncryptedContentInfo content = envelopeAssigned.contentInfo();
    EXPECT_EQ(content.algorithm().asString(), "1.2.840.113549.3.7");
    CMS::RecipientInfo recipientOf(nullptr);
    EXPECT_EQ(static_cast<pkcs7_recip_info_st*>(recipientOf), nullptr);
    recipientOf = envelopeAssigned.recipientInfo().front();
    EXPECT_EQ(recipientOf.issuerAndSerialNumber().serialNumber().asInt(), 7);
    EXPECT_EQ(static_cast<pkcs7_recip_info_st*>(recipientOf),
              sk_PKCS7_RECIP_INFO_value(static_cast<pkcs7_st*>(envelope)->d.enveloped->recipientinfo, 0));
    const CMS::EncapsulatedContentInfo inner(static_cast<pkcs7_st*>(envelope)->d.enveloped->enc_data);
    const CMS::EncapsulatedContentInfo innerCopy = inner;
    CMS::EncapsulatedContentInfo innerAssigned(nullptr);
    innerAssigned = innerCopy;
    EXPECT_EQ(innerAssigned.data().length(), 2U);
}

TEST(TypedAccess, AsksForTheTypeBeforeItReadsTheUnion) {
    const CMS::RefContentInfo envelope = decoded(enveloped({recipient(der::integer("7"))}));
    EXPECT_TRUE(CMS::signedData(envelope).signerInfo().empty());
    EXPECT_EQ(CMS::signedData(envelope).version().object(), nullptr);
    const CMS::RefContentInfo signature = decoded(emptySigned());
    EXPECT_EQ(CMS::envelopedData(signature).version().object(), nullptr);
    EXPECT_TRUE(CMS::envelopedData(signature).recipientInfo().empty());
}

TEST(TypedAccess, AStructureThatLacksItsContentIsViewedOverNull) {
    for (const int type : {2, 3}) {
        const CMS::RefContentInfo message =
            decoded(norvauthority::contentInfo(pkcsOid({7, static_cast<unsigned char>(type)}), std::nullopt));
        ASSERT_EQ(static_cast<int>(message->typeAsEnum()), type);
        EXPECT_EQ(CMS::signedData(message).version().object(), nullptr);
        EXPECT_TRUE(CMS::signedData(message).signerInfo().empty());
        EXPECT_EQ(CMS::envelopedData(message).version().object(), nullptr);
        EXPECT_TRUE(CMS::embeddedContent(message).isNull());
    }
}

TEST(TypedAccess, NullHandlesAreViewedOverNull) {
    const CMS::RefContentInfo none(false);
    EXPECT_EQ(CMS::signedData(none).version().object(), nullptr);
    EXPECT_EQ(CMS::envelopedData(none).version().object(), nullptr);
    EXPECT_TRUE(CMS::embeddedContent(none).isNull());
}

TEST(EmbeddedContent, IsNoneForADetachedSignature) {
    EXPECT_TRUE(CMS::embeddedContent(decoded(emptySigned())).isNull());
}

TEST(EmbeddedContent, IsTheBodyAndOutlivesTheHandle) {
    const Bytes body = bodyOf(10000);
    Norvane::MediaIn content;
    {
        const CMS::RefContentInfo message = decoded(signedByOpenssl(identities().rsa, body, "SHA256", 0));
        content = CMS::embeddedContent(message);
    }
    ASSERT_FALSE(content.isNull());
    EXPECT_FALSE(content.atEnd());
    EXPECT_EQ(content.peek(), body.front());
    Norvane::MemoryMediaOut copy;
    content.write(copy);
    EXPECT_EQ(bytesOf(copy.content()), body);
    EXPECT_TRUE(content.atEnd());
    EXPECT_EQ(content.peek(), -1);
}

TEST(EmbeddedContent, ComesInPiecesOfAnyLength) {
    const Bytes body = bodyOf(1000);
    const CMS::RefContentInfo message = decoded(signedByOpenssl(identities().rsa, body, "SHA256", 0));
    for (const unsigned int piece : {1U, 3U, 999U, 1000U, 1001U}) {
        Norvane::MediaIn content = CMS::embeddedContent(message);
        Bytes read;
        Bytes some(piece);
        for (int count = content.read(some.data(), piece); count > 0 && read.size() <= body.size();
             count = content.read(some.data(), piece)) {
            read.insert(read.end(), some.begin(), some.begin() + count);
        }
        EXPECT_EQ(read, body) << piece;
    }
}

TEST(EmbeddedContent, JoinsThePiecesOfAStreamingSender) {
    const Bytes body = bodyOf(100000);
    const Bytes structure = signedByOpenssl(identities().rsa, body, "SHA256", CMS_STREAM);
    ASSERT_EQ(structure[1], 0x80) << "the outer length is indefinite";
    Norvane::MediaIn content = CMS::embeddedContent(decoded(structure));
    ASSERT_FALSE(content.isNull());
    Norvane::MemoryMediaOut copy;
    content.write(copy);
    EXPECT_EQ(bytesOf(copy.content()), body);
}

TEST(EmbeddedContent, OfLengthZeroIsThereAndAtItsEnd) {
    Norvane::MediaIn content = CMS::embeddedContent(decoded(signedByOpenssl(identities().rsa, {}, "SHA256", 0)));
    ASSERT_FALSE(content.isNull());
    EXPECT_TRUE(content.atEnd());
}

TEST(EmbeddedContent, OfATypeThatPkcs7DoesNotKnowIsItsOctets) {
    // The time-stamp information of RFC 3161 travels so.
    const Bytes structure = norvauthority::contentInfo(
        pkcsOid({7, 2}),
        der::sequence({der::integer("3"), der::set({}),
                       der::sequence({der::oid("1.2.840.113549.1.9.16.1.4"),
                                      der::element(der::contextConstructed(0), der::octetString({5, 6, 7}))}),
                       der::set({})}));
    Norvane::MediaIn content = CMS::embeddedContent(decoded(structure));
    ASSERT_FALSE(content.isNull());
    std::string text;
    EXPECT_EQ(content.read(text), 3);
    EXPECT_EQ(text, "\x05\x06\x07");
}

TEST(EmbeddedContent, OfAnotherTypeOfPkcs7IsNone) {
    const Bytes structure = norvauthority::contentInfo(
        pkcsOid({7, 2}),
        der::sequence({der::integer("1"), der::set({}), emptySigned(), der::set({signerInfo(der::integer("1"))})}));
    const CMS::RefContentInfo message = decoded(structure);
    EXPECT_TRUE(CMS::embeddedContent(message).isNull());
    const CMS::SignedData outer = CMS::signedData(message);
    ASSERT_EQ(outer.contentInfo()->typeAsEnum(), ContentInfo::SignedData);
    EXPECT_EQ(outer.signerInfo().size(), 1U);
    EXPECT_TRUE(CMS::signedData(outer.contentInfo()).signerInfo().empty());
}

TEST(EmbeddedContent, OfATypeThatIsNoOctetsIsNone) {
    const Bytes structure = norvauthority::contentInfo(
        pkcsOid({7, 2}), der::sequence({der::integer("3"), der::set({}),
                                        der::sequence({der::oid("1.2.840.113549.1.9.16.1.4"),
                                                       der::element(der::contextConstructed(0), der::boolValue(true))}),
                                        der::set({})}));
    EXPECT_TRUE(CMS::embeddedContent(decoded(structure)).isNull());
}
