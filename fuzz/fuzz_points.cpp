// Distribution points: two extensions, each behind a length of two bytes. Whether names of theirs are equal is what
// comparing each with each says.
#include "Driver.h"

#include <norvcrypto/CRLDistributionPoint.h>

#include <algorithm>

using namespace Norvane::Crypto::NVX509;

namespace {

RefCRLDistributionPoints take(const Norvane::Buffer& input, unsigned int& at) {
    if (input.length() - at < 2) {
        return {input.data(), 0};
    }
    const unsigned int announced = static_cast<unsigned int>(input.data()[at]) << 8U | input.data()[at + 1];
    at += 2;
    const unsigned int length = std::min(announced, input.length() - at);
    at += length;
    return {input.data() + at - length, length};
}

bool shareAName(const CRLDistributionPointName& left, const CRLDistributionPointName& right) {
    return std::any_of(left.fullName().begin(), left.fullName().end(), [&](const GeneralName& name) {
        return std::find(right.fullName().begin(), right.fullName().end(), name) != right.fullName().end();
    });
}

void compare(const CRLDistributionPointName& left, const CRLDistributionPointName& right) {
    fuzz::require((left == right) == (right == left));
    if (left.type() == 0 && right.type() == 0 && !left.isNull() && !right.isNull()) {
        const fuzz::Uncounted aside;
        fuzz::require((left == right) == shareAName(left, right));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto compareAll = [](const Norvane::Buffer& input) {
        unsigned int at = 0;
        const RefCRLDistributionPoints left = take(input, at);
        const RefCRLDistributionPoints right = take(input, at);
        if (left.isNull() || right.isNull()) {
            return;
        }
        for (const auto& mine : left->distributionPoints()) {
            static_cast<void>(mine->reasons());
            static_cast<void>(mine->issuers());
            fuzz::require(mine->distributionPointName().isNull() ||
                          mine->distributionPointName() == mine->distributionPointName());
            // Each with each is the caller's product: a few.
            const auto& theirs = right->distributionPoints();
            auto other = theirs.begin();
            for (int i = 0; i < 4 && other != theirs.end(); ++i, ++other) {
                compare(mine->distributionPointName(), (*other)->distributionPointName());
            }
        }
    };
    return fuzz::run(data, size, compareAll);
}
