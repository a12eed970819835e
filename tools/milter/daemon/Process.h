#pragma once

/// \file
/// What a process may do: as whom it runs, in the background or not, and how much memory it takes.

#include "daemon/Descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace norvmilter {

struct User {
    std::string name;
    uid_t user = 0;
    gid_t group = 0;
};

/// \throws std::runtime_error there is no such user
[[nodiscard]] User userNamed(const std::string& name);
/// For good, with the user's groups. \throws std::runtime_error it cannot be
void become(const User& user);

/// Goes on in a process of its own without a terminal, while the one that was started waits for what is told through the
/// descriptor: nothing but "ready" makes it end with 0. \throws std::system_error
[[nodiscard]] Descriptor goToBackground();

/// Threads and processes that so many connections of an MTA may need at most. Each has one, another while the MTA is told that its
/// message is worked on, and another while the name of the server is looked up that messages are handed to. The others are those of
/// the supervisor, of the worker, and of reloading and stopping them.
[[nodiscard]] constexpr std::size_t mostThreads(std::size_t connections) noexcept {
    return 3 * connections + 16;
}
constexpr std::size_t bytesOfStack = std::size_t{1} << 20U; ///< of each thread; counts as data of the process

/// What norvcrypt-milter.service allows.
constexpr std::size_t threadsOfUnit = 512;                      ///< TasksMax
constexpr std::uint64_t memoryOfUnit = std::uint64_t{2} << 30U; ///< MemoryMax

/// For the process that handles keys and mails: no core files, no debugger of the same user, and no more memory than that.
/// \param memoryBytes of data; 0: no limit
void confine(std::uint64_t memoryBytes);

} // namespace norvmilter
