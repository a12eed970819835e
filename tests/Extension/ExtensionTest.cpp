#include "support/HostileDer.h"
#include "support/Slots.h"
#include "support/Thrown.h"

#include <norvcrypto/Extension.h>

#include <authority/Authority.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace Norvane::Crypto;
using namespace Norvane::Crypto::NVX509;
using norvauthority::Bytes;
using norvauthority::fromHex;
using norvauthority::toHex;
using norvtest::errorQueueIsEmpty;
using norvtest::lengthOf;
namespace der = norvauthority::der;
using Issued = norvauthority::GeneralName;

namespace {

struct FreeExtension {
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, FreeExtension>;

/// An extension with `value` in its OCTET STRING; `critical` as it stands in the DER, left out when negative.
ExtensionPtr extension(const std::string& oid, const Bytes& value, int critical = -1) {
    std::vector<Bytes> parts{der::oid(oid)};
    if (critical >= 0) {
        parts.push_back(der::boolValue(critical > 0));
    }
    parts.push_back(der::octetString(value));
    const Bytes bytes = der::sequence(parts);
    const unsigned char* at = bytes.data();
    return ExtensionPtr(d2i_X509_EXTENSION(nullptr, &at, static_cast<long>(bytes.size())));
}

std::string hexOf(const ASN1::RefOctetString& octets) {
    return octets->data() == nullptr ? "<null>" : toHex(Bytes(octets->data(), octets->data() + octets->length()));
}

const Bytes keyIdentifier = fromHex("30168014000102030405060708090a0b0c0d0e0f10111213");
const Bytes caWithPathLength = fromHex("30060101ff020103");
const Bytes subjectAltName = norvauthority::generalNames(
    {Issued::email("a@example.org"), Issued::dns("example.org"), Issued::uri("http://example.org/")});

Bytes accessDescription(const std::string& method, const Issued& location) {
    return der::sequence({der::oid(method), location.der});
}

const Bytes accessInformation =
    der::sequence({accessDescription("1.3.6.1.5.5.7.48.1", Issued::uri("http://ocsp.example/")),
                   accessDescription("1.3.6.1.5.5.7.48.2", Issued::uri("http://ca.example/ca.cer"))});

// ------------------------------------------------------------------------------------------------ any extension

TEST(Extension, Generic) {
    const ExtensionPtr object = extension("2.5.29.19", caWithPathLength, 1);
    const RefExtension handle(object.get());
    EXPECT_TRUE(handle->critical());
    ASSERT_FALSE(handle->identifier().isNull());
    EXPECT_EQ(handle->identifier()->asString(), "2.5.29.19");
    EXPECT_EQ(hexOf(handle->derEncodedValue()), "30060101ff020103");
    EXPECT_EQ(handle->referenceCount(), 1);
}

TEST(Extension, Critical) {
    const ExtensionPtr absent = extension("2.5.29.19", caWithPathLength);
    const ExtensionPtr no = extension("2.5.29.19", caWithPathLength, 0);
    const ExtensionPtr yes = extension("2.5.29.19", caWithPathLength, 1);
    EXPECT_FALSE(RefExtension(absent.get())->critical());
    EXPECT_FALSE(RefExtension(no.get())->critical());
    EXPECT_TRUE(RefExtension(yes.get())->critical());
}

TEST(Extension, CachesKeepOneHandle) {
    const ExtensionPtr object = extension("2.5.29.19", caWithPathLength);
    const RefExtension handle(object.get());
    EXPECT_EQ(&*handle->identifier(), &*handle->identifier());
    EXPECT_EQ(&*handle->derEncodedValue(), &*handle->derEncodedValue());
    EXPECT_EQ(&handle->identifier(), &handle->identifier());
}

TEST(Extension, NullExtension) {
    const RefExtension handle(nullptr);
    ASSERT_FALSE(handle.isNull());
    EXPECT_FALSE(handle->critical());
    EXPECT_TRUE(handle->identifier().isNull());
    EXPECT_TRUE(handle->derEncodedValue().isNull());
}

TEST(Extension, NullHandleThrows) {
    const RefExtension null;
    EXPECT_TRUE(null.isNull());
    const auto arrow = norvtest::thrownBy([&] { static_cast<void>(null->critical()); });
    EXPECT_EQ(arrow.where(), "operator->");
    EXPECT_EQ(arrow.code(), 1);
    const auto star = norvtest::thrownBy([&] { static_cast<void>((*null).critical()); });
    EXPECT_EQ(star.where(), "operator*");
    EXPECT_EQ(star.code(), 1);
}

// ------------------------------------------------------------------------------------------------- typed bodies

TEST(ExtensionTyped, AuthorityKeyIdentifier) {
    const RefAuthorityKeyIdentifier handle(keyIdentifier.data(), lengthOf(keyIdentifier));
    EXPECT_EQ(handle->identifier()->asString(), "2.5.29.35");
    ASSERT_FALSE(handle->keyId().isNull());
    EXPECT_EQ(hexOf(handle->keyId()), "000102030405060708090a0b0c0d0e0f10111213");
    EXPECT_FALSE(handle->critical());
    EXPECT_TRUE(handle->derEncodedValue().isNull());
}

TEST(ExtensionTyped, AuthorityKeyIdentifierWithoutKeyIdHasAnEmptyValue) {
    const Bytes empty = fromHex("3000");
    const RefAuthorityKeyIdentifier handle(empty.data(), lengthOf(empty));
    ASSERT_FALSE(handle->keyId().isNull());
    EXPECT_EQ(handle->keyId()->object(), nullptr);
    EXPECT_FALSE(handle->keyId() == RefAuthorityKeyIdentifier(empty.data(), lengthOf(empty))->keyId());
}

TEST(ExtensionTyped, AuthorityKeyIdentifierFromStructure) {
    const unsigned char* at = keyIdentifier.data();
    const std::unique_ptr<AUTHORITY_KEYID, decltype(&AUTHORITY_KEYID_free)> object(
        d2i_AUTHORITY_KEYID(nullptr, &at, static_cast<long>(keyIdentifier.size())), AUTHORITY_KEYID_free);
    const RefAuthorityKeyIdentifier handle(object.get());
    EXPECT_EQ(handle->identifier()->asString(), "2.5.29.35");
    EXPECT_EQ(handle->keyId()->object(), object->keyid);
}

TEST(ExtensionTyped, BasicConstraints) {
    const RefBasicConstraints handle(caWithPathLength.data(), lengthOf(caWithPathLength));
    EXPECT_EQ(handle->identifier()->asString(), "2.5.29.19");
    const BASIC_CONSTRAINTS* constraints = *handle;
    ASSERT_NE(constraints, nullptr);
    EXPECT_NE(constraints->ca, 0);
    EXPECT_EQ(ASN1_INTEGER_get(constraints->pathlen), 3);
}

TEST(ExtensionTyped, SubjectAlternativeName) {
    const RefSubjectAlternativeName handle(subjectAltName.data(), lengthOf(subjectAltName));
    EXPECT_EQ(handle->identifier()->asString(), "2.5.29.17");
    std::vector<int> types;
    for (const GeneralName& name : handle->names()) {
        types.push_back(name.type());
    }
    EXPECT_EQ(types, (std::vector<int>{1, 2, 6}));
    EXPECT_EQ(handle->names().size(), 3U);
    EXPECT_EQ(handle->names().front().emailAddress().address(), "a@example.org");
    EXPECT_EQ(handle->names().back().uri().text(), "http://example.org/");
}

TEST(ExtensionTyped, AuthorityInformationAccess) {
    const RefAuthorityInformationAccess handle(accessInformation.data(), lengthOf(accessInformation));
    EXPECT_EQ(handle->identifier()->asString(), "1.3.6.1.5.5.7.1.1");
    ASSERT_EQ(handle->ocspGeneralNames().size(), 1U);
    EXPECT_EQ(handle->ocspGeneralNames().front().uri().text(), "http://ocsp.example/");
    ASSERT_EQ(handle->issuerGeneralNames().size(), 1U);
    EXPECT_EQ(handle->issuerGeneralNames().front().uri().text(), "http://ca.example/ca.cer");
    EXPECT_EQ(handle->ocspGeneralNames().size(), 1U);
}

TEST(ExtensionTyped, AuthorityInformationAccessKeepsOrderAndSkipsOtherMethods) {
    const Bytes bytes = der::sequence({accessDescription("1.3.6.1.5.5.7.48.2", Issued::uri("http://ca.example/1")),
                                       accessDescription("1.3.6.1.5.5.7.48.3", Issued::uri("http://time.example/")),
                                       accessDescription("1.3.6.1.5.5.7.48.2", Issued::dns("ca.example")),
                                       accessDescription("1.3.6.1.4.1.99999.1", Issued::uri("http://other.example/"))});
    const RefAuthorityInformationAccess handle(bytes.data(), lengthOf(bytes));
    EXPECT_TRUE(handle->ocspGeneralNames().empty());
    ASSERT_EQ(handle->issuerGeneralNames().size(), 2U);
    EXPECT_EQ(handle->issuerGeneralNames().front().uri().text(), "http://ca.example/1");
    EXPECT_EQ(handle->issuerGeneralNames().back().type(), 2);
}

// Only the authority key identifier names itself when it wraps a structure.
TEST(ExtensionTyped, WrappedStructuresHaveNoIdentifierDeliberately) {
    const std::unique_ptr<BASIC_CONSTRAINTS, decltype(&BASIC_CONSTRAINTS_free)> constraints(BASIC_CONSTRAINTS_new(),
                                                                                            BASIC_CONSTRAINTS_free);
    const RefBasicConstraints wrapped(constraints.get());
    EXPECT_TRUE(wrapped->identifier().isNull());
    EXPECT_EQ(static_cast<const BASIC_CONSTRAINTS*>(*wrapped), constraints.get());

    const unsigned char* at = subjectAltName.data();
    const std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> names(
        d2i_GENERAL_NAMES(nullptr, &at, static_cast<long>(subjectAltName.size())), GENERAL_NAMES_free);
    const RefSubjectAlternativeName alternative(names.get());
    EXPECT_TRUE(alternative->identifier().isNull());
    ASSERT_EQ(alternative->names().size(), 3U);
    EXPECT_EQ(alternative->names().front().object(), sk_GENERAL_NAME_value(names.get(), 0));

    at = accessInformation.data();
    const std::unique_ptr<AUTHORITY_INFO_ACCESS, decltype(&AUTHORITY_INFO_ACCESS_free)> descriptions(
        d2i_AUTHORITY_INFO_ACCESS(nullptr, &at, static_cast<long>(accessInformation.size())),
        AUTHORITY_INFO_ACCESS_free);
    const RefAuthorityInformationAccess access(descriptions.get());
    EXPECT_TRUE(access->identifier().isNull());
    EXPECT_EQ(access->ocspGeneralNames().size(), 1U);
}

TEST(ExtensionTyped, NullStructures) {
    const RefAuthorityKeyIdentifier key(static_cast<const AUTHORITY_KEYID_st*>(nullptr));
    const RefBasicConstraints constraints(static_cast<const BASIC_CONSTRAINTS_st*>(nullptr));
    const RefSubjectAlternativeName names(static_cast<const stack_st_GENERAL_NAME*>(nullptr));
    const RefAuthorityInformationAccess access(static_cast<const stack_st_ACCESS_DESCRIPTION*>(nullptr));
    EXPECT_TRUE(key->keyId().isNull());
    EXPECT_EQ(static_cast<const BASIC_CONSTRAINTS*>(*constraints), nullptr);
    EXPECT_TRUE(names->names().empty());
    EXPECT_TRUE(access->ocspGeneralNames().empty());
    EXPECT_TRUE(access->issuerGeneralNames().empty());
    EXPECT_TRUE(RefAuthorityKeyIdentifier().isNull());
    EXPECT_TRUE(RefBasicConstraints().isNull());
    EXPECT_TRUE(RefSubjectAlternativeName().isNull());
    EXPECT_TRUE(RefAuthorityInformationAccess().isNull());
}

TEST(ExtensionTyped, NoBytes) {
    EXPECT_TRUE(RefAuthorityKeyIdentifier(nullptr, 5)->keyId().isNull());
    EXPECT_EQ(RefAuthorityKeyIdentifier(nullptr, 5)->identifier()->asString(), "2.5.29.35");
    EXPECT_TRUE(RefSubjectAlternativeName(subjectAltName.data(), 0)->names().empty());
    EXPECT_TRUE(errorQueueIsEmpty());
}

// --------------------------------------------------------------------------------------------------- conversion

TEST(ExtensionConversion, FromGenericHandle) {
    ExtensionPtr object = extension("2.5.29.17", subjectAltName, 1);
    RefSubjectAlternativeName names{RefExtension(object.get())};
    RefSubjectAlternativeName assigned;
    assigned = RefExtension(object.get());
    object.reset(); // they own a decoded copy
    for (const RefSubjectAlternativeName& handle : {names, assigned}) {
        ASSERT_FALSE(handle.isNull());
        EXPECT_EQ(handle->names().size(), 3U);
        EXPECT_EQ(handle->identifier()->asString(), "2.5.29.17");
        EXPECT_FALSE(handle->critical());
    }
}

TEST(ExtensionConversion, EachKind) {
    const ExtensionPtr key = extension("2.5.29.35", keyIdentifier);
    const ExtensionPtr constraints = extension("2.5.29.19", caWithPathLength);
    const ExtensionPtr access = extension("1.3.6.1.5.5.7.1.1", accessInformation);
    RefAuthorityKeyIdentifier keyHandle;
    keyHandle = RefExtension(key.get());
    EXPECT_EQ(keyHandle->keyId()->length(), 20U);
    RefBasicConstraints constraintsHandle;
    constraintsHandle = RefExtension(constraints.get());
    EXPECT_NE(static_cast<const BASIC_CONSTRAINTS*>(*constraintsHandle), nullptr);
    RefAuthorityInformationAccess accessHandle;
    accessHandle = RefExtension(access.get());
    EXPECT_EQ(accessHandle->issuerGeneralNames().size(), 1U);
    EXPECT_EQ(
        RefAuthorityInformationAccess { RefExtension(access.get()) } -> ocspGeneralNames().size(), 1U);
}

TEST(ExtensionConversion, EmptyGivesEmpty) {
    EXPECT_TRUE(RefSubjectAlternativeName(RefExtension()).isNull());
    EXPECT_TRUE(RefAuthorityInformationAccess(RefExtension()).isNull());
    EXPECT_TRUE(RefSubjectAlternativeName(RefExtension(nullptr)).isNull());
}

TEST(ExtensionConversion, ReleasesWhatWasHeld) {
    RefSubjectAlternativeName names(subjectAltName.data(), lengthOf(subjectAltName));
    const RefSubjectAlternativeName shared = names; // NOLINT(performance-unnecessary-copy-initialization)
    names = RefExtension();
    EXPECT_TRUE(names.isNull());
    EXPECT_EQ(shared->referenceCount(), 1);
    EXPECT_EQ(shared->names().size(), 3U);
}

// A typed body has no DER value of its own.
TEST(ExtensionConversion, OfATypedHandleIsEmpty) {
    const RefBasicConstraints constraints(caWithPathLength.data(), lengthOf(caWithPathLength));
    const RefExtension& generic = constraints;
    EXPECT_TRUE(RefSubjectAlternativeName(generic).isNull());
}

TEST(ExtensionConversion, OtherKindGivesANullStructureDeliberately) {
    const ExtensionPtr object = extension("2.5.29.17", subjectAltName);
    RefBasicConstraints constraints;
    constraints = RefExtension(object.get());
    ASSERT_FALSE(constraints.isNull());
    EXPECT_EQ(static_cast<const BASIC_CONSTRAINTS*>(*constraints), nullptr);
    EXPECT_EQ(constraints->identifier()->asString(), "2.5.29.19");
    const ExtensionPtr other = extension("2.5.29.19", caWithPathLength);
    EXPECT_TRUE(RefSubjectAlternativeName(RefExtension(other.get()))->names().empty());
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ExtensionConversion, EmptyValue) {
    const ExtensionPtr object = extension("2.5.29.17", {});
    const RefSubjectAlternativeName names{RefExtension(object.get())};
    ASSERT_FALSE(names.isNull());
    EXPECT_TRUE(names->names().empty());
}

// ------------------------------------------------------------------------------------------------------ handles

TEST(ExtensionHandles, AccessorsAreVirtualAndTyped) {
    const RefBasicConstraints typed(caWithPathLength.data(), lengthOf(caWithPathLength));
    const RefExtension& generic = typed;
    EXPECT_EQ(generic->identifier()->asString(), "2.5.29.19");
    EXPECT_EQ(&*generic, static_cast<Extension*>(typed.operator->()));
    static_assert(std::is_same_v<decltype(*typed), BasicConstraints&>);
    static_assert(std::is_same_v<decltype(typed.operator->()), BasicConstraints*>);
    static_assert(std::is_same_v<decltype(*generic), Extension&>);
}

TEST(ExtensionHandles, AccessorsStandInTheirOrder) {
    using norvtest::slotOf;
    EXPECT_EQ(slotOf<Extension* (RefExtension::*)()>(&RefExtension::operator->), 2U);
    EXPECT_EQ(slotOf<Extension& (RefExtension::*)()>(&RefExtension::operator*), 3U);
    EXPECT_EQ(slotOf<Extension* (RefExtension::*)() const>(&RefExtension::operator->), 4U);
    EXPECT_EQ(slotOf<Extension& (RefExtension::*)() const>(&RefExtension::operator*), 5U);
}

TEST(ExtensionHandles, GenericHandleSharesATypedBody) {
    RefExtension generic;
    {
        const RefSubjectAlternativeName names(subjectAltName.data(), lengthOf(subjectAltName));
        generic = names;
    }
    EXPECT_EQ(generic->identifier()->asString(), "2.5.29.17");
    EXPECT_NE(dynamic_cast<SubjectAlternativeName*>(&*generic), nullptr);
}

TEST(ExtensionHandles, BodyOfAnotherKindCountsAsNone) {
    const ExtensionPtr object = extension("2.5.29.17", subjectAltName);
    RefBasicConstraints typed;
    RefExtension& generic = typed;
    generic = RefExtension(object.get());
    const auto arrow = norvtest::thrownBy([&] { static_cast<void>(typed->critical()); });
    EXPECT_EQ(arrow.where(), "operator->");
    EXPECT_EQ(arrow.code(), 1);
    const auto star = norvtest::thrownBy([&] { static_cast<void>((*typed).critical()); });
    EXPECT_EQ(star.where(), "operator*");
}

TEST(ExtensionHandles, NullTypedHandleThrows) {
    const RefSubjectAlternativeName null;
    RefSubjectAlternativeName changeable;
    for (const auto& thrown : {norvtest::thrownBy([&] { static_cast<void>(null->names()); }),
                               norvtest::thrownBy([&] { static_cast<void>(changeable->names()); })}) {
        norvtest::expectFailure(thrown, "operator->", 1, "include2/NorvRefcounted");
    }
    for (const auto& thrown : {norvtest::thrownBy([&] { static_cast<void>((*null).names()); }),
                               norvtest::thrownBy([&] { static_cast<void>((*changeable).names()); })}) {
        norvtest::expectFailure(thrown, "operator*", 1, "include2/NorvRefcounted");
    }
}

template <class Handle> void expectSharing(const Handle& original) {
    const Handle copy = original; // NOLINT(performance-unnecessary-copy-initialization)
    Handle assigned;
    assigned = original;
    EXPECT_EQ(&*copy, &*original);
    EXPECT_EQ(&*assigned, &*original);
    EXPECT_EQ(original->referenceCount(), 3);
    assigned = Handle();
    EXPECT_TRUE(assigned.isNull());
    EXPECT_EQ(original->referenceCount(), 2);
}

TEST(ExtensionHandles, CopiesShareTheBody) {
    const ExtensionPtr object = extension("2.5.29.17", subjectAltName);
    expectSharing(RefExtension(object.get()));
    expectSharing(RefAuthorityKeyIdentifier(keyIdentifier.data(), lengthOf(keyIdentifier)));
    expectSharing(RefBasicConstraints(caWithPathLength.data(), lengthOf(caWithPathLength)));
    expectSharing(RefSubjectAlternativeName(subjectAltName.data(), lengthOf(subjectAltName)));
    expectSharing(RefAuthorityInformationAccess(accessInformation.data(), lengthOf(accessInformation)));
}

// Not every handle takes a generic one at construction.
static_assert(!std::is_constructible_v<RefAuthorityKeyIdentifier, const RefExtension&>);
static_assert(!std::is_constructible_v<RefBasicConstraints, const RefExtension&>);
static_assert(std::is_constructible_v<RefSubjectAlternativeName, const RefExtension&>);
static_assert(std::is_constructible_v<RefAuthorityInformationAccess, const RefExtension&>);
static_assert(std::is_assignable_v<RefAuthorityKeyIdentifier&, const RefExtension&>);
static_assert(std::is_assignable_v<RefBasicConstraints&, const RefExtension&>);
static_assert(std::is_assignable_v<RefSubjectAlternativeName&, const RefExtension&>);
static_assert(std::is_assignable_v<RefAuthorityInformationAccess&, const RefExtension&>);
static_assert(!std::is_constructible_v<RefExtension, const unsigned char*, unsigned int>);
static_assert(!std::is_copy_constructible_v<Extension> && !std::is_copy_constructible_v<BasicConstraints>);

// -------------------------------------------------------------------------------------------------- damaged DER

template <class Check> void forDamaged(const Bytes& good, Check check) {
    for (const auto& damaged : {norvtest::properPrefixes(good), norvtest::oversized(good)}) {
        for (const Bytes& bad : damaged) {
            check(bad);
        }
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ExtensionDamaged, AuthorityKeyIdentifier) {
    forDamaged(keyIdentifier, [](const Bytes& bad) {
        const RefAuthorityKeyIdentifier handle(bad.data(), lengthOf(bad));
        EXPECT_TRUE(handle->keyId().isNull()) << toHex(bad);
        EXPECT_EQ(handle->identifier()->asString(), "2.5.29.35");
    });
}

TEST(ExtensionDamaged, BasicConstraints) {
    forDamaged(caWithPathLength, [](const Bytes& bad) {
        const RefBasicConstraints handle(bad.data(), lengthOf(bad));
        EXPECT_EQ(static_cast<const BASIC_CONSTRAINTS*>(*handle), nullptr) << toHex(bad);
    });
}

TEST(ExtensionDamaged, SubjectAlternativeName) {
    forDamaged(subjectAltName, [](const Bytes& bad) {
        const RefSubjectAlternativeName handle(bad.data(), lengthOf(bad));
        EXPECT_TRUE(handle->names().empty()) << toHex(bad);
    });
}

TEST(ExtensionDamaged, AuthorityInformationAccess) {
    forDamaged(accessInformation, [](const Bytes& bad) {
        const RefAuthorityInformationAccess handle(bad.data(), lengthOf(bad));
        EXPECT_TRUE(handle->ocspGeneralNames().empty()) << toHex(bad);
        EXPECT_TRUE(handle->issuerGeneralNames().empty()) << toHex(bad);
    });
}

TEST(ExtensionDamaged, FlippedBitsGiveSaneAnswers) {
    for (const Bytes& flipped : norvtest::bitFlips(subjectAltName)) {
        const RefSubjectAlternativeName handle(flipped.data(), lengthOf(flipped));
        EXPECT_LE(handle->names().size(), 20U) << toHex(flipped);
        for (const GeneralName& name : handle->names()) {
            EXPECT_GE(name.type(), 0);
            EXPECT_LE(name.type(), 8);
            EXPECT_LE(name.uri().text().size(), flipped.size());
        }
    }
    for (const Bytes& flipped : norvtest::bitFlips(accessInformation)) {
        const RefAuthorityInformationAccess handle(flipped.data(), lengthOf(flipped));
        EXPECT_LE(handle->ocspGeneralNames().size() + handle->issuerGeneralNames().size(), 2U) << toHex(flipped);
    }
    EXPECT_TRUE(errorQueueIsEmpty());
}

TEST(ExtensionDamaged, BytesAfterTheElementAreIgnored) {
    Bytes bytes = caWithPathLength;
    der::append(bytes, fromHex("0500"));
    const RefBasicConstraints handle(bytes.data(), lengthOf(bytes));
    EXPECT_NE(static_cast<const BASIC_CONSTRAINTS*>(*handle), nullptr);
}

} // namespace
