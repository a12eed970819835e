#pragma once

/// \file
/// Hostile mails, chains of certificates, patterns and configurations in any size, and messages of 1 KB at most that cost as much
/// as any that are known.

#include "HostileInputs.h"

#include <cstdint>

namespace fuzz {

std::vector<Case> hostileMails();
/// Mails on their way out.
std::vector<Case> hostileWriting();

/// What a message of 1 KB may cost.
inline constexpr std::size_t smallMessage = 1024;
inline constexpr std::uint64_t smallWork = 100'000'000; ///< 100 ms: the unit of `Work` is about a nanosecond
inline constexpr std::uint64_t smallMemory = 1U << 20U; ///< octets that are held at once

struct SmallMessage {
    const char* input;
    std::function<Prepared()> prepare;
};
std::vector<SmallMessage> smallMessages();

} // namespace fuzz
