#pragma once

/// \file
/// What is measured: messages that fail in different ways, of which whoever sent them must learn no more than that.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace timing {

using Bytes = std::vector<unsigned char>;

enum class Expected {
    alike,    ///< a difference is a leak
    differs,  ///< the answers do, as `why` says
    mustLeak, ///< the measuring is wrong when none is found
};

struct Class {
    std::string name;
    std::function<Bytes()> make;         ///< another input of this class each time, all of one length
    bool succeeds = false;               ///< what `run` has to answer for the measurement to count
    Expected expected = Expected::alike; ///< beside the first class
    std::string why{};
};

struct Probe {
    std::string name;
    std::function<bool(const Bytes&)> run; ///< what is measured: whether the input was taken for good
    std::vector<Class> classes;
    bool isControl = false;
};

/// \param bits of the RSA key
std::vector<Probe> probes(unsigned int bits);

} // namespace timing
