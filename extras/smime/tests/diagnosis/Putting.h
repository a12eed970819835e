#pragma once

/// \file
/// Bodies that are put together again as texts.

#include "diagnosis/BodyScanner.h"
#include "diagnosis/LineOutput.h"

#include <string>

namespace puttogether {

using namespace Norvane::Crypto::SMime::diagnosis;

/// Keeps what is put out.
class Kept : public LineOutput {
public:
    explicit Kept(std::string newLine = "\r\n") : m_newLine(std::move(newLine)) {}
    void put(std::string_view octets) override { text += octets; }
    void end(LineEnd end) override { text += octetsOf(end); }
    void newLine() override { text += m_newLine; }

    std::string text;

private:
    std::string m_newLine;
};

} // namespace puttogether
