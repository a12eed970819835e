#include "commandline/Reference.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

namespace norvcrypt {

namespace {

constexpr std::size_t longest = 40; ///< no name is longer, whatever a stranger's script passes on

/// How many letters have to be put in, taken out, replaced or swapped with their neighbours.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> beforeLast;
    std::vector<std::size_t> last(other.size() + 1);
    std::iota(last.begin(), last.end(), 0U);
    for (std::size_t i = 1; i <= one.size(); ++i) {
        std::vector<std::size_t> row{i};
        for (std::size_t j = 1; j <= other.size(); ++j) {
            const bool same = one[i - 1] == other[j - 1];
            std::size_t least = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (same ? 0U : 1U)});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                least = std::min(least, beforeLast[j - 2] + 1);
            row.push_back(least);
        }
        beforeLast = std::exchange(last, std::move(row));
    }
    return last.back();
}

} // namespace

std::optional<std::string> likeliest(const std::string& word, const std::vector<std::string>& known) {
    if (word.size() > longest)
        return std::nullopt;
    const auto isBegun = [&word](const std::string& one) { return word.size() > 2 && one.starts_with(word); };
    if (std::ranges::count_if(known, isBegun) == 1)
        return *std::ranges::find_if(known, isBegun);
    std::optional<std::string> best;
    const std::size_t letters = word.size() - std::min(word.size(), word.find_first_not_of('-'));
    std::size_t least = letters / 3 + 2; // one more than is taken for a slip
    for (const std::string& one : known)
        if (const std::size_t differing = distance(word, one); differing < least) {
            best = one;
            least = differing;
        }
    return best;
}

} // namespace norvcrypt
