#pragma once

/// \file
/// Where a body goes that is put together again.

#include "diagnosis/BodyScanner.h"

#include <string_view>

namespace Norvane::Crypto::SMime::diagnosis {

class LineOutput {
public:
    LineOutput() = default;
    LineOutput(const LineOutput&) = delete;
    LineOutput& operator=(const LineOutput&) = delete;
    virtual ~LineOutput() = default;

    virtual void put(std::string_view octets) = 0;
    virtual void end(LineEnd end) = 0;
    /// A line end that did not stand there.
    virtual void newLine() = 0;
};

} // namespace Norvane::Crypto::SMime::diagnosis
