#pragma once

// Faults that come at the n-th of their kind: memory that runs out, system calls that fail or are cut short, streams that
// throw, a process that forks. A program that links what is declared here stands in for operator new, OpenSSL's allocator
// and the system calls of files and sockets; all of them forward until a fault is armed.

#include <norvcmsg/Media.h>

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace faults {

/// What happens. Those of a thread are counted for that thread alone.
enum class Kind : int {
    opensslAllocation, ///< an allocation of OpenSSL's gives null
    allocation,        ///< operator new throws std::bad_alloc
    readFails,         ///< read, pread, recv: EIO
    readIsShort,       ///< likewise: one byte
    writeFails,        ///< write, pwrite, send: EIO
    writeIsShort,      ///< likewise: one byte
    diskIsFull,        ///< from the n-th write or pwrite on: ENOSPC
    callIsInterrupted, ///< a call that may be: EINTR, once
    callFails,         ///< any other call (open, fstat, rename, fsync, poll, mmap, ...): an error that it has
    sourceThrows,      ///< a source throws `StreamFailure` before its n-th byte
    targetThrows,      ///< a target throws `StreamFailure` at its n-th byte
    forks,             ///< the process forks at a call of a stream or of the system; the child leaves
};
inline constexpr int kindCount = 12;
const char* nameOf(Kind kind);

/// What the streams below throw.
class StreamFailure : public std::runtime_error {
public:
    StreamFailure() : std::runtime_error("the stream") {}
};

/// Arms the `number`-th fault, counted from 1, for this thread.
void arm(Kind kind, long number);
/// Whether the fault came. Nothing is armed afterwards.
bool disarm();
/// How many more of its kind the fault that was armed last would have needed.
long leftOver();
/// The numbers of the faults of which each has another stack of calls than those before it, when `act` arms one that never
/// comes and does what it does.
std::vector<long> placesOfDifferentStacks(const std::function<void()>& act);
/// Where the fault came, as far as it is known: "crypto/asn1/a_object.c:123", "pread".
std::string placeOfFault();

/// Nothing of this thread counts or fails in its scope.
class Pause {
public:
    Pause() noexcept;
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
};

/// A source of the bytes in pieces of at most 200, and a target that keeps what it gets. Both fail when it is their turn.
Norvane::MediaIn source(std::string bytes);
class Target : public Norvane::MediaOut {
public:
    Target();
    [[nodiscard]] const std::string& content() const;
    [[nodiscard]] bool ended() const;
};

/// The memories that were not given back yet, of operator new and OpenSSL.
long liveMemories();
/// From now on it is noted where memory is taken from; off again: what is still there of it, one line each: where from.
void recordMemories();
std::vector<std::string> recordedMemories();

/// The open descriptors of the process.
int openDescriptors();

/// The children that were forked by faults and came to another end than `_exit(0)`.
int failedChildren();
/// True in a child that a fault forked: it leaves by unwinding what is on the stack.
class ChildLeaves {};

} // namespace faults
