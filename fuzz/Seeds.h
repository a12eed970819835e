#pragma once

/// \file
/// The parts of make_corpus.

#include <string>

namespace fuzz {

/// Writes an input of a target.
void put(const std::string& target, const std::string& name, const std::string& content);

void chainSeeds();     ///< chains and lists to be judged, and files of them
void extensionSeeds(); ///< single extensions
void fileSeeds();      ///< files of key stores, configurations, addresses
void tlsSeeds();       ///< what clients and servers say first

} // namespace fuzz
