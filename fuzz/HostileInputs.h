#pragma once

/// \file
/// The hostile inputs of docs/costs.md, in any size.

#include <norvcmsg/Exception.h>

#include <openssl/err.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace fuzz {

/// One input of a size that a stranger chooses: what is done with it, made ready before anything is counted.
struct Prepared {
    std::size_t octets;
    std::function<void()> act;
};

/// Does something that may be answered with an exception.
template <class Act> Prepared prepared(std::size_t octets, Act act) {
    return {octets, [act] {
                try {
                    act();
                } catch (const Norvane::Exception&) {
                    ERR_clear_error();
                }
            }};
}

struct Case {
    const char* input;
    const char* chosen; ///< what n is
    std::size_t smallest;
    double mostGrowth; ///< the exponent by which neither work nor memory may exceed n
    std::function<Prepared(std::size_t)> prepare;
};

/// A text so many times.
std::string repeatedText(const std::string& text, std::size_t count);

/// What grows linearly may do so by an exponent of 1.2: what sorts is a little above 1.
const std::vector<Case>& hostileInputs();

} // namespace fuzz
