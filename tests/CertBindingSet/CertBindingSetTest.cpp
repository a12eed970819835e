#include "support/Slots.h"
#include "support/Thrown.h"
#include "support/X509Testing.h"

#include <norvcrypto/CertBindingSet.h>

#include <climits>
#include <functional>
#include <type_traits>

using namespace Norvane;
using namespace Norvane::Crypto;
using namespace x509testing;
using norvtest::thrownBy;

namespace {

class CertBindingSetTest : public QuietQueue {};

template <class Base, class Derived>
concept CastsDown = requires(Base* base) {
    static_cast<Derived*>(base);
};
static_assert(std::is_base_of_v<RefImpl, CertBindingSet> && !CastsDown<RefImpl, CertBindingSet>, "a virtual base");
static_assert(std::is_base_of_v<NonCopyable, CertBindingSet> && !std::is_copy_constructible_v<CertBindingSet>);
static_assert(std::is_abstract_v<CertBindingSetFilter>);
// The map of the standard library, whose look-up is logarithmic.
static_assert(std::is_same_v<decltype(std::declval<const CertBindingSet&>().CertBindings()),
                             const std::map<int, RefCertBinding>&>);
// Filters refer to what they look for: a temporary would be gone when they are asked.
static_assert(std::is_constructible_v<CertBindingOwnerFilter, const EmailAddress&>);
static_assert(!std::is_constructible_v<CertBindingOwnerFilter, EmailAddress>);
static_assert(
    std::is_constructible_v<CertBindingCertificateFilter, const NVX509::DistinguishedName&, const ASN1::Integer&>);
static_assert(!std::is_constructible_v<CertBindingCertificateFilter, NVX509::DistinguishedName, const ASN1::Integer&>);
static_assert(!std::is_constructible_v<CertBindingCertificateFilter, const NVX509::DistinguishedName&, ASN1::Integer>);
static_assert(!std::is_constructible_v<CertBindingCertificateFilter, NVX509::DistinguishedName, ASN1::Integer>);

/// A binding over a pair that exists already.
class Sharing : public CertBinding {
public:
    Sharing(int id, const std::string& pattern, unsigned int position, const NVX509::KeyCertificatePair& pair)
        : CertBinding(id, StringPattern(pattern), X509, KeyUsage{}, position, 0),
          m_pair(pair) {}
    NVX509::KeyCertificatePair keyPairX509() const override { return m_pair; }

private:
    NVX509::KeyCertificatePair m_pair;
};

RefCertBinding binding(int id, const std::string& pattern = "*", unsigned int position = 0,
                       const NVX509::KeyCertificatePair& pair = NVX509::KeyCertificatePair(true)) {
    return RefCertBinding(new Sharing(id, pattern, position, pair));
}

NVX509::KeyCertificatePair pairOf(const norvauthority::Identity& identity) {
    return {RefKey(), read(identity)};
}

const norvauthority::Identity& root() {
    static const auto identity = issue({.subject = {{"CN", "Root"}}, .key = anyKey(), .ca = true});
    return identity;
}

norvauthority::Identity leaf(const std::string& serial) {
    return issue({.subject = {{"CN", "Leaf"}}, .key = anyKey(), .issuer = &root(), .serial = serial});
}

EmailAddress address(const std::string& text) {
    return EmailAddress::rfc5321Parse(text, false);
}

/// Matches as the test says, and notes about which bindings it was asked.
class Asked : public CertBindingSetFilter {
public:
    explicit Asked(std::function<bool(const RefCertBinding&)> answer, bool done = true)
        : m_answer(std::move(answer)),
          m_done(done) {}
    bool match(const RefCertBinding& one) override {
        asked.push_back(one->Id());
        return m_answer(one);
    }
    bool done() const override {
        ++doneCalls;
        return m_done;
    }

    std::vector<int> asked;
    mutable int doneCalls = 0;

private:
    std::function<bool(const RefCertBinding&)> m_answer;
    bool m_done;
};

bool always(const RefCertBinding& /*one*/) {
    return true;
}

bool never(const RefCertBinding& /*one*/) {
    return false;
}

std::vector<int> idsOf(const std::set<RefCertBinding>& bindings) {
    std::vector<int> ids;
    for (const auto& one : bindings) {
        ids.push_back(one->Id());
    }
    return ids;
}

int idOf(const RefCertBinding& one) {
    return one.isNull() ? -1 : one->Id();
}

// The set

TEST_F(CertBindingSetTest, AnEmptySetFindsNothing) {
    const RefCertBindingSet set("outgoing");
    EXPECT_EQ(set->name(), "outgoing");
    EXPECT_TRUE(set->empty());
    EXPECT_TRUE(set->CertBindings().empty());
    Asked filter(always);
    EXPECT_TRUE(set->find(1).isNull());
    EXPECT_TRUE(set->find(filter).isNull());
    EXPECT_TRUE(set->findSet(filter).empty());
    EXPECT_TRUE(filter.asked.empty());
    EXPECT_EQ(filter.doneCalls, 0);
}

TEST_F(CertBindingSetTest, BindingsAreStoredUnderTheirIdentifiersInAscendingOrder) {
    const RefCertBindingSet set("s");
    for (const int id : {7, INT_MIN, INT_MAX, -1, 0}) {
        set->add(binding(id));
    }
    EXPECT_FALSE(set->empty());
    std::vector<int> ids;
    for (const auto& [id, one] : set->CertBindings()) {
        EXPECT_EQ(one->Id(), id);
        ids.push_back(id);
    }
    EXPECT_EQ(ids, (std::vector<int>{INT_MIN, -1, 0, 7, INT_MAX}));
    EXPECT_EQ(idOf(set->find(INT_MIN)), INT_MIN);
    EXPECT_TRUE(set->find(8).isNull());
}

TEST_F(CertBindingSetTest, TheSetSharesWhatItIsGiven) {
    const RefCertBindingSet set("s");
    const auto one = binding(3);
    set->add(one);
    EXPECT_EQ(one->referenceCount(), 2);
    EXPECT_EQ(&*set->find(3), &*one);
}

TEST_F(CertBindingSetTest, ABindingUnderAnExistingIdentifierDeliberatelyReplacesTheFirst) {
    const RefCertBindingSet set("s");
    const auto first = binding(3, "first");
    set->add(first);
    set->add(binding(3, "second"));
    EXPECT_EQ(set->CertBindings().size(), 1U);
    EXPECT_EQ(set->find(3)->namePattern().text(), "second");
    EXPECT_EQ(first->referenceCount(), 1) << "released by the set";
}

TEST_F(CertBindingSetTest, AddingWhatTheSetHoldsChangesNothing) {
    const RefCertBindingSet set("s");
    set->add(binding(3));
    set->add(set->find(3));
    EXPECT_EQ(set->CertBindings().size(), 1U);
    EXPECT_EQ(set->find(3)->referenceCount(), 1);
}

TEST_F(CertBindingSetTest, ANullHandleCannotBeAdded) {
    const RefCertBindingSet set("s");
    norvtest::expectFailure(thrownBy([&] { set->add(RefCertBinding()); }), "operator->", 1, "include2/NorvRefcounted");
    EXPECT_TRUE(set->empty());
}

// Finding one

TEST_F(CertBindingSetTest, TheSmallestIdentifierThatMatchesIsFound) {
    const RefCertBindingSet set("s");
    set->add(binding(9, "*", 1));
    set->add(binding(3, "*", 2));
    const auto owner = address("a@example.com");
    CertBindingOwnerFilter filter(owner);
    EXPECT_EQ(idOf(set->find(filter)), 3);
}

TEST_F(CertBindingSetTest, FindWalksUpToTheFirstMatchAndAsksOnceWhetherItIsDone) {
    const RefCertBindingSet set("s");
    for (const int id : {4, 3, 2, 1}) {
        set->add(binding(id));
    }
    Asked filter([](const RefCertBinding& one) { return one->Id() == 3; });
    EXPECT_EQ(idOf(set->find(filter)), 3);
    EXPECT_EQ(filter.asked, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(filter.doneCalls, 1);
}

TEST_F(CertBindingSetTest, AFilterThatIsNotDoneDeliberatelyEndsTheSearchWithoutAnAnswer) {
    const RefCertBindingSet set("s");
    set->add(binding(1));
    set->add(binding(2));
    Asked filter(always, false);
    EXPECT_TRUE(set->find(filter).isNull());
    EXPECT_EQ(filter.asked, std::vector<int>{1});
    EXPECT_EQ(filter.doneCalls, 1);
}

TEST_F(CertBindingSetTest, WithoutAMatchAllAreAskedOnceAndDoneIsNot) {
    const RefCertBindingSet set("s");
    set->add(binding(2));
    set->add(binding(1));
    Asked filter(never);
    EXPECT_TRUE(set->find(filter).isNull());
    EXPECT_EQ(filter.asked, (std::vector<int>{1, 2}));
    EXPECT_EQ(filter.doneCalls, 0);
}

TEST_F(CertBindingSetTest, FiltersAreAskedAboutACopyOfTheHandle) {
    const RefCertBindingSet set("s");
    set->add(binding(1));
    const auto isCopy = [&](const RefCertBinding& one) {
        EXPECT_NE(&one, &set->find(1));
        EXPECT_EQ(one->referenceCount(), 2);
        return true;
    };
    Asked filter(isCopy);
    EXPECT_EQ(&set->find(filter), &set->CertBindings().at(1)) << "the answer is the set's own handle";
    set->findSet(filter);
}

TEST_F(CertBindingSetTest, WhatFindsNothingReturnsTheSetsOneNullHandle) {
    const RefCertBindingSet set("s");
    Asked filter(never);
    EXPECT_EQ(&set->find(1), &set->find(2));
    EXPECT_EQ(&set->find(filter), &set->find(2));
}

// Finding all

TEST_F(CertBindingSetTest, AllMatchesComeByAscendingPosition) {
    const RefCertBindingSet set("s");
    set->add(binding(1, "*", 30));
    set->add(binding(2, "*", 10));
    set->add(binding(3, "*", 40));
    set->add(binding(4, "*", 20));
    Asked filter([](const RefCertBinding& one) { return one->Id() != 3; }, false);
    EXPECT_EQ(idsOf(set->findSet(filter)), (std::vector<int>{2, 4, 1}));
    EXPECT_EQ(filter.asked, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(filter.doneCalls, 0) << "only find asks";
}

TEST_F(CertBindingSetTest, OfOnePositionOnlyTheSmallestIdentifierIsDeliberatelyKept) {
    const RefCertBindingSet set("s");
    set->add(binding(9, "*", 5));
    set->add(binding(3, "*", 5));
    const auto owner = address("a@example.com");
    CertBindingOwnerFilter filter(owner);
    EXPECT_EQ(idsOf(set->findSet(filter)), std::vector<int>{3});
}

// What a filter throws

void expectWrapped(const Exception& thrown, unsigned int line, const std::string& cause) {
    norvtest::expectFailure(thrown, "CertBindingSet::find", 4, "CertBindingSet", line);
    EXPECT_TRUE(thrown.parameters().empty());
    ASSERT_TRUE(thrown.hasCause());
    EXPECT_EQ(thrown.cause()->where(), cause);
}

TEST_F(CertBindingSetTest, WhatMatchThrowsIsTheCauseOfWhatFindThrows) {
    const RefCertBindingSet set("s");
    set->add(binding(1));
    set->add(binding(2));
    Asked filter([](const RefCertBinding& one) -> bool {
        if (one->Id() == 2) {
            throw MediaException("the filter", 7, "Test", 1);
        }
        return false;
    });
    expectWrapped(thrownBy([&] { set->find(filter); }), 106, "the filter");
    EXPECT_EQ(filter.asked, (std::vector<int>{1, 2}));
}

TEST_F(CertBindingSetTest, WhatMatchThrowsIsTheCauseOfWhatFindSetThrowsDeliberatelyUnderTheSameName) {
    const RefCertBindingSet set("s");
    set->add(binding(1));
    Asked filter([](const RefCertBinding&) -> bool { throw Exception("the filter", 7, "Test", 1); });
    expectWrapped(thrownBy([&] { set->findSet(filter); }), 127, "the filter");
}

TEST_F(CertBindingSetTest, WhatIsNoExceptionOfTheCommonLibraryPassesThrough) {
    const RefCertBindingSet set("s");
    set->add(binding(1));
    Asked filter([](const RefCertBinding&) -> bool { throw std::runtime_error("other"); });
    EXPECT_THROW(set->find(filter), std::runtime_error);
    EXPECT_THROW(set->findSet(filter), std::runtime_error);
}

TEST_F(CertBindingSetTest, LookingForAnIdentifierNeverThrows) {
    static_assert(noexcept(std::declval<const CertBindingSet&>().find(1)));
}

// The owner filter

TEST_F(CertBindingSetTest, OwnersAreMatchedByPattern) {
    const RefCertBindingSet set("s");
    set->add(binding(1, "*@example.org", 1));
    set->add(binding(2, "alice@Example.COM", 2));
    set->add(binding(3, "*@example.com", 3));
    set->add(binding(4, "Alice@example.com", 4));
    set->add(binding(5, "", 5));
    const auto owner = address("alice@example.com");
    CertBindingOwnerFilter filter(owner);
    EXPECT_TRUE(filter.done());
    EXPECT_EQ(idOf(set->find(filter)), 2);
    EXPECT_EQ(idsOf(set->findSet(filter)), (std::vector<int>{2, 3}));
    const auto nobody = address("alice@example.net");
    CertBindingOwnerFilter other(nobody);
    EXPECT_TRUE(set->find(other).isNull());
}

TEST_F(CertBindingSetTest, TheNullAddressMatchesExactlyWhatMatchesTheEmptyText) {
    const RefCertBindingSet set("s");
    set->add(binding(1, "?", 1));
    set->add(binding(2, "", 2));
    set->add(binding(3, "*@*", 3));
    set->add(binding(4, "*", 4));
    set->add(binding(5, "**", 5));
    for (const auto& none : {EmailAddress(), address("no address"), address("")}) {
        CertBindingOwnerFilter filter(none);
        EXPECT_EQ(idsOf(set->findSet(filter)), (std::vector<int>{2, 4, 5}));
    }
}

// The certificate filter

TEST_F(CertBindingSetTest, CertificatesAreFoundByIssuerAndSerialNumber) {
    const auto wanted = read(leaf("0a"));
    const RefCertBindingSet set("s");
    set->add(binding(1, "", 1, pairOf(leaf("0b"))));
    set->add(binding(2, "", 2, pairOf(issue({.subject = {{"CN", "Other"}}, .key = anyKey(), .serial = "0a"}))));
    set->add(binding(3, "", 3, pairOf(leaf("0a"))));
    set->add(binding(4, "", 4, pairOf(leaf("0a"))));
    CertBindingCertificateFilter filter(wanted->issuer(), wanted->serialNumber());
    EXPECT_TRUE(filter.done());
    EXPECT_EQ(idOf(set->find(filter)), 3);
    EXPECT_EQ(idsOf(set->findSet(filter)), (std::vector<int>{3, 4}));
}

TEST_F(CertBindingSetTest, IssuersAreComparedAsNamesNotAsTexts) {
    const RefCertBindingSet set("s");
    set->add(binding(1, "", 1, pairOf(leaf("0a"))));
    const NVX509::DistinguishedName issuer(std::string("CN=rOOT"));
    const auto certificate = read(leaf("0a"));
    CertBindingCertificateFilter filter(issuer, certificate->serialNumber());
    EXPECT_EQ(idOf(set->find(filter)), 1);
}

TEST_F(CertBindingSetTest, ABindingWithoutCertificateOrPairNeverMatchesACertificate) {
    const auto wanted = read(leaf("0a"));
    const RefCertBindingSet set("s");
    set->add(binding(1, "*", 1));
    set->add(binding(2, "*", 2, NVX509::KeyCertificatePair(false)));
    set->add(RefCertBinding(3, StringPattern("*"), CertBinding::X509, CertBinding::KeyUsage{}, 3, 0, "", "", ""));
    CertBindingCertificateFilter filter(wanted->issuer(), wanted->serialNumber());
    EXPECT_TRUE(set->find(filter).isNull());
    const NVX509::DistinguishedName noName;
    const ASN1::Integer noNumber;
    CertBindingCertificateFilter empty(noName, noNumber);
    EXPECT_TRUE(set->find(empty).isNull());
    EXPECT_TRUE(set->findSet(empty).empty());
}

TEST_F(CertBindingSetTest, CertificatesOfTheChainAreNotSearched) {
    const auto wanted = read(leaf("0a"));
    const RefCertBindingSet set("s");
    set->add(binding(1, "*", 1, NVX509::KeyCertificatePair(RefKey(), read(leaf("0b")), {wanted})));
    CertBindingCertificateFilter filter(wanted->issuer(), wanted->serialNumber());
    EXPECT_TRUE(set->find(filter).isNull());
}

TEST_F(CertBindingSetTest, ANegativeSerialNumberOfThatIssuerDeliberatelyEndsTheSearch) {
    const auto wanted = read(leaf("0a"));
    const RefCertBindingSet set("s");
    set->add(binding(1, "*", 1, pairOf(leaf("-0a"))));
    set->add(binding(2, "*", 2, pairOf(leaf("0a"))));
    CertBindingCertificateFilter filter(wanted->issuer(), wanted->serialNumber());
    expectWrapped(thrownBy([&] { set->find(filter); }), 106, "ASN1::Integer::Integer");
    expectWrapped(thrownBy([&] { set->findSet(filter); }), 127, "ASN1::Integer::Integer");
    const auto other = read(issue({.subject = {{"CN", "Other"}}, .key = anyKey(), .serial = "0a"}));
    CertBindingCertificateFilter ofAnother(other->issuer(), other->serialNumber());
    EXPECT_TRUE(set->find(ofAnother).isNull()) << "another issuer's certificates are not asked for their numbers";
}

TEST_F(CertBindingSetTest, FilterOperationsKeepTheirSlots) {
    EXPECT_EQ(norvtest::slotOf(&CertBindingSetFilter::match), 2U);
    EXPECT_EQ(norvtest::slotOf(&CertBindingSetFilter::done), 3U);
}

TEST_F(CertBindingSetTest, WarmingMindsBindingsWithoutPairOrCertificate) {
    const RefCertBindingSet set("s");
    set->warm();
    set->add(binding(1));
    set->add(binding(2, "*", 2, NVX509::KeyCertificatePair(false)));
    set->add(binding(3, "*", 3, NVX509::KeyCertificatePair(RefKey(), read(leaf("-0a")), {NVX509::RefCertificate()})));
    set->warm();
    EXPECT_EQ(set->CertBindings().size(), 3U);
}

// Large sets

constexpr int large = 100'000;

/// Identifiers 0 to 99,999, an owner each, and one pair for all.
const RefCertBindingSet& largeSet() {
    static const RefCertBindingSet set = [] {
        RefCertBindingSet made("large");
        const auto pair = pairOf(leaf("0a"));
        for (int id = large - 1; id >= 0; --id) {
            made->add(binding(id, "user" + std::to_string(id) + "@example.com", static_cast<unsigned int>(id), pair));
        }
        return made;
    }();
    return set;
}

// A look-up that walked the set would take five billion steps here, this takes under two million.
TEST_F(CertBindingSetTest, EachOfManyIdentifiersIsFoundWithoutWalkingTheSet) {
    const auto& set = largeSet();
    ASSERT_EQ(set->CertBindings().size(), 100'000U);
    for (int id = 0; id < large; ++id) {
        ASSERT_EQ(idOf(set->find(id)), id);
    }
    EXPECT_TRUE(set->find(-1).isNull());
    EXPECT_TRUE(set->find(large).isNull());
    EXPECT_EQ(set->find(large / 2)->referenceCount(), 1) << "no handle was copied and kept";
}

TEST_F(CertBindingSetTest, SearchesWalkALargeSetExactlyOnce) {
    const auto& set = largeSet();
    std::vector<int> all;
    for (int id = 0; id < large; ++id) {
        all.push_back(id);
    }
    Asked noneMatches(never);
    EXPECT_TRUE(set->find(noneMatches).isNull());
    EXPECT_EQ(noneMatches.asked, all);
    Asked lastMatches([](const RefCertBinding& one) { return one->Id() == large - 1; });
    EXPECT_EQ(idOf(set->find(lastMatches)), large - 1);
    EXPECT_EQ(lastMatches.asked, all);
    Asked eachMatches(always);
    EXPECT_EQ(idOf(set->find(eachMatches)), 0);
    EXPECT_EQ(eachMatches.asked.size(), 1U);
    eachMatches.asked.clear();
    EXPECT_EQ(set->findSet(eachMatches).size(), 100'000U);
    EXPECT_EQ(eachMatches.asked, all);
}

TEST_F(CertBindingSetTest, OwnersAndCertificatesAreFoundInALargeSet) {
    const auto& set = largeSet();
    const auto owner = address("user99999@EXAMPLE.com");
    CertBindingOwnerFilter byOwner(owner);
    EXPECT_EQ(idOf(set->find(byOwner)), 99'999);
    EXPECT_EQ(idsOf(set->findSet(byOwner)), std::vector<int>{99'999});
    const auto certificate = read(leaf("0a"));
    CertBindingCertificateFilter byCertificate(certificate->issuer(), certificate->serialNumber());
    EXPECT_EQ(idOf(set->find(byCertificate)), 0);
    EXPECT_EQ(set->findSet(byCertificate).size(), 100'000U);
}

// Handles on sets

TEST_F(CertBindingSetTest, CopiesOfAHandleShareTheSet) {
    const RefCertBindingSet set("s");
    EXPECT_EQ(set->referenceCount(), 1);
    const RefCertBindingSet copy = set;
    copy->add(binding(1));
    EXPECT_EQ(set->CertBindings().size(), 1U);
    EXPECT_EQ(set->referenceCount(), 2);
}

TEST_F(CertBindingSetTest, TheBindingsGoWithTheSet) {
    const auto one = binding(1);
    {
        const RefCertBindingSet set("s");
        set->add(one);
        EXPECT_EQ(one->referenceCount(), 2);
    }
    EXPECT_EQ(one->referenceCount(), 1);
}

TEST_F(CertBindingSetTest, SetsAreOrderedByTheBytesOfTheirNames) {
    const RefCertBindingSet a("a");
    const RefCertBindingSet ab("ab");
    EXPECT_TRUE(a < ab);
    EXPECT_FALSE(ab < a);
    EXPECT_TRUE(ab < RefCertBindingSet("b"));
    EXPECT_TRUE(RefCertBindingSet("") < a);
    EXPECT_TRUE(RefCertBindingSet("z") < RefCertBindingSet("\xC3\xA4")) << "bytes are unsigned";
    EXPECT_TRUE(a < RefCertBindingSet(std::string("a\0", 2))) << "a zero byte is a byte";
    EXPECT_FALSE(a < a); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(a < RefCertBindingSet("a"));
}

TEST_F(CertBindingSetTest, DifferentSetsOfOneNameAreDeliberatelyEqual) {
    const RefCertBindingSet one("a");
    const RefCertBindingSet other("a");
    other->add(binding(1));
    EXPECT_TRUE(one == other);
    EXPECT_TRUE(one == one); // NOLINT(misc-redundant-expression)
    EXPECT_FALSE(one == RefCertBindingSet("ab"));
    EXPECT_FALSE(one == RefCertBindingSet(std::string("a\0", 2)));
}

TEST_F(CertBindingSetTest, NullHandlesComeFirstAndEqualEachOther) {
    const RefCertBindingSet none;
    const RefCertBindingSet set("");
    EXPECT_TRUE(none.isNull());
    EXPECT_TRUE(none < set);
    EXPECT_FALSE(set < none);
    EXPECT_FALSE(none < RefCertBindingSet());
    EXPECT_TRUE(none == RefCertBindingSet());
    EXPECT_FALSE(none == set);
    EXPECT_FALSE(set == none);
}

} // namespace
