// How many addresses a field holds (RFC 5322, 3.4), whatever GMime makes of it.

#include "mime/AddressItems.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Norvane::Crypto::SMime::mime::AddressCount;
using Norvane::Crypto::SMime::mime::countAddresses;

std::optional<std::size_t> addressesIn(const std::string& value) {
    const std::optional<AddressCount> count = countAddresses(value);
    return count ? std::optional(count->addresses) : std::nullopt;
}

TEST(AddressItems, AreCounted) {
    for (const auto& [value, count] : std::vector<std::pair<std::string, std::size_t>>{
             {"", 0},
             {"nobody", 0},
             {"a@b", 1},
             {"a@b, c@d", 2},
             {"a@b, c@d; e@f", 3},
             {"g: a@b, <c@d>;", 2},
             {"\"a<b\" <c@d>", 1},
             {"(\" x@y) a@b", 1},
             {"a@[1],b@c", 2},
             {"a@[1", 1},
             {"a@b,", 1},
             {",a@b,,c@d", 2},
             {"a@b; c@d", 2},
             {"g: a@b, c@d;, e@f", 3},
             {"g:;", 0},
             {"Bob <b@c>", 1},
             {"<b@c>,<d@e>", 2},
             {"b@c <b@c>", 1},
             {" b@C(x) < B@c > ", 1},
             {"'b@c' <b@c>", 1},
             {"\"b d\"@c <\"b d\"@c>, e@f <e@f>", 2},
             {"\"x@y\" <b@c>, d@e", 2},
             {"\"a, b@c; d@e: f@g\" <b@c>", 1},
             {"\"a\\\"b@c\" <d@e>", 1},
             {"\"a(b@c\" <d@e>, f@g (h@i)", 2},
             {"(a@b) c@d", 1},
             {"(a (b@c) d@e) f@g", 1},
             {"(a\\) b@c) d@e", 1},
             {"(a\"b@c) d@e", 1},
             {"b@[1.2.3.4], c@d", 2},
             {"b@[IPv6:::1]", 1},
             {"B <b@[IPv6:::1]>", 1},
             {"B <b@[IPv6:::1]>, C <c@[IPv6:::2]>", 2},
             {"g: <b@[IPv6:::1]>, <c@d>;, <e@f>", 3},
         })
        EXPECT_EQ(addressesIn(value), count) << value;
}

TEST(AddressItems, WithoutAnAddressAreCountedBesideThem) {
    for (const auto& [value, count] : std::vector<std::pair<const char*, std::size_t>>{
             {"", 0},
             {"a@b, <c@d>,,; ,", 0},
             {"g: a@b;, h:;", 0},
             {"a", 1},
             {"a, b@c; \"d\",<e>", 3},
             {"Doe, John <j@b>", 1},
             {"(a), \"a@b\", (c) d", 2},
             {"g: a, b;", 2},
             {"', a", 2},
             {"'', a", 1}, // nothing between apostrophes
             {"''', a", 2},
         }) {
        const std::optional<AddressCount> found = countAddresses(value);
        ASSERT_TRUE(found) << value;
        EXPECT_EQ(found->others, count) << value;
    }
}

// Who reads on finds another one than who stops.
TEST(AddressItems, AreNotClearWhereSomethingIsNotClosedOrStandsTwice) {
    for (const char* const value :
         {"a@b@c", "a@@b", "<a@b@c>", "<a@b>@c", "<ab>@c", "<a@b> <c@d>", "<<a@b>>", "a@b>", "<a@b", "<a@b, c@d>",
          "<@a,@b:c@d>", "(a@b", "a@b (c", "a@b ((c)", "\"a@b", "a@b \"c\\\"", "c@d, <a@b", "a@b [c@d]", "a@[b, c@d",
          "<a@[b", "<a@[b]:c>",
          // Who stops at what he does not know finds the first one, others the one in the brackets.
          "a@b <c@d>", "a@b ] <c@d>", "a@b [ <c@d>", "a@b) <c@d>", "a@b \\ <c@d>", "a@b, c@d[x] <e@f>", "a@b@c <b@c>",
          "\"x\"@b ] <\"y\"@b>", "\"x\"@b <\"y\"@b>", "'a@b <a@b>", "a @ b <c@d>", "a@bc <ab@c>"})
        EXPECT_EQ(addressesIn(value), std::nullopt) << value;
}

} // namespace
