// Lists of names and points for which there was no memory once.
#include "support/Allocations.h"

#include <authority/Authority.h>
#include <authority/Der.h>
#include <norvcrypto/CRLDistributionPoint.h>

#include <gtest/gtest.h>

#include <new>

using namespace Norvane::Crypto::NVX509;
using norvauthority::Bytes;
namespace der = norvauthority::der;

namespace {

long s_left = -1; // allocations until the one that fails; negative: none does

void failInTurn(std::size_t /*length*/) {
    if (s_left >= 0 && s_left-- == 0) {
        throw std::bad_alloc();
    }
}

unsigned int lengthOf(const Bytes& octets) {
    return static_cast<unsigned int>(octets.size());
}

Bytes threeNames() {
    using norvauthority::GeneralName;
    return norvauthority::generalNames({GeneralName::dns("a"), GeneralName::dns("b"), GeneralName::dns("c")});
}

/// Lets each allocation of the first call in turn fail: the next call answers all that there is.
/// \param made a handle on a new body, whose list `listOf` gives
template <class Made, class ListOf> void expectNoneIsLost(Made made, ListOf listOf) {
    norvtest::s_beforeAllocation = failInTurn;
    int shortages = 0;
    for (bool failed = true; failed; ++shortages) {
        const auto handle = made();
        s_left = shortages;
        failed = false;
        try {
            static_cast<void>(listOf(handle));
        } catch (const std::bad_alloc&) {
            failed = true;
        }
        s_left = -1;
        EXPECT_EQ(listOf(handle).size(), 3U) << shortages;
    }
    EXPECT_GT(shortages, 3);
    norvtest::s_beforeAllocation = nullptr;
}

} // namespace

TEST(ExtensionMemory, NamesAreThereOnceThereIsMemory) {
    const Bytes names = threeNames();
    expectNoneIsLost([&] { return RefSubjectAlternativeName(names.data(), lengthOf(names)); },
                     [](const auto& handle) -> const auto& { return handle->names(); });
}

TEST(ExtensionMemory, LocationsToo) {
    const auto descriptionsOf = [](const std::string& method) {
        const auto location = norvauthority::GeneralName::uri("http://ca.example");
        return der::sequence(std::vector<Bytes>(3, der::sequence({der::oid(method), location.der})));
    };
    const Bytes responders = descriptionsOf("1.3.6.1.5.5.7.48.1");
    const Bytes issuers = descriptionsOf("1.3.6.1.5.5.7.48.2");
    expectNoneIsLost([&] { return RefAuthorityInformationAccess(responders.data(), lengthOf(responders)); },
                     [](const auto& handle) -> const auto& { return handle->ocspGeneralNames(); });
    expectNoneIsLost([&] { return RefAuthorityInformationAccess(issuers.data(), lengthOf(issuers)); },
                     [](const auto& handle) -> const auto& { return handle->issuerGeneralNames(); });
}

TEST(ExtensionMemory, DistributionPointsToo) {
    const Bytes points = der::sequence(std::vector<Bytes>(3, der::sequence({der::element(0x81, {0, 0x80})})));
    expectNoneIsLost([&] { return RefCRLDistributionPoints(points.data(), lengthOf(points)); },
                     [](const auto& handle) -> const auto& { return handle->distributionPoints(); });
}

TEST(ExtensionMemory, NamesOfAPointToo) {
    const Bytes names = threeNames();
    const Bytes content(names.begin() + 2, names.end());
    const Bytes point = der::sequence({der::element(0xA0, der::element(0xA0, content)), der::element(0xA2, content)});
    expectNoneIsLost([&] { return RefCRLDistributionPoint(point.data(), lengthOf(point)); },
                     [](const auto& handle) -> const auto& { return handle->issuers(); });
    expectNoneIsLost([&] { return RefCRLDistributionPoint(point.data(), lengthOf(point)); },
                     [](const auto& handle) -> const auto& { return handle->distributionPointName().fullName(); });
}
