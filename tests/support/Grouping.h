#pragma once

// A host program that sets the global locale of C++: numbers written to streams made from then on are grouped.

#include <locale>
#include <string>

namespace norvtest {

/// Groups digits by three, as the locales of most countries do, for the length of a scope.
class GroupingDigits {
public:
    GroupingDigits() : m_before(std::locale::global(std::locale(std::locale::classic(), new Threes))) {}
    ~GroupingDigits() { std::locale::global(m_before); }
    GroupingDigits(const GroupingDigits&) = delete;
    GroupingDigits& operator=(const GroupingDigits&) = delete;

private:
    struct Threes : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale m_before;
};

} // namespace norvtest
