// Stands in for operator new and for OpenSSL's allocator.

#include "State.h"

#include <openssl/crypto.h>

#include <dlfcn.h>
#include <execinfo.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace faults {

namespace {

std::atomic<long> s_live{0};

/// A memory that was taken while it was recorded.
struct Record {
    void* memory = nullptr;
    const char* file = nullptr; // of OpenSSL's source; null for operator new
    int line = 0;
    std::array<void*, 14> frames{};
    int depth = 0;
};
constexpr std::size_t s_room = 20000;
std::array<Record, s_room> s_records;
std::atomic<bool> s_recording{false};
std::mutex s_guard;

void note(void* memory, const char* file, int line) {
    if (!s_recording || state.paused != 0) {
        return;
    }
    const std::lock_guard lock(s_guard);
    for (Record& one : s_records) {
        if (one.memory == nullptr) {
            one.memory = memory;
            one.file = file;
            one.line = line;
            one.depth = backtrace(one.frames.data(), static_cast<int>(one.frames.size()));
            return;
        }
    }
}

void forget(const void* memory) {
    if (!s_recording || memory == nullptr) {
        return;
    }
    const std::lock_guard lock(s_guard);
    for (Record& one : s_records) {
        if (one.memory == memory) {
            one.memory = nullptr;
            return;
        }
    }
}

void* taken(void* memory, const char* file, int line) {
    if (memory != nullptr) {
        ++s_live;
        note(memory, file, line);
    }
    return memory;
}

void* opensslAllocates(std::size_t length, const char* file, int line) {
    if (length == 0 || comes(Kind::opensslAllocation, file, line)) {
        return nullptr;
    }
    return taken(std::malloc(length), file, line);
}

void opensslFrees(void* memory, const char* /*file*/, int /*line*/) {
    if (memory != nullptr) {
        --s_live;
        forget(memory);
        std::free(memory);
    }
}

void* opensslMoves(void* memory, std::size_t length, const char* file, int line) {
    if (memory == nullptr) {
        return opensslAllocates(length, file, line);
    }
    if (length == 0) {
        opensslFrees(memory, file, line);
        return nullptr;
    }
    if (comes(Kind::opensslAllocation, file, line)) {
        return nullptr;
    }
    forget(memory);
    void* const moved = std::realloc(memory, length);
    note(moved == nullptr ? memory : moved, file, line);
    return moved;
}

/// Before anything of OpenSSL's is allocated.
[[gnu::constructor]] void standIn() {
    if (CRYPTO_set_mem_functions(opensslAllocates, opensslMoves, opensslFrees) != 1) {
        std::fputs("OpenSSL allocated before the tests could stand in for its allocator\n", stderr);
        std::abort();
    }
}

std::string functionAt(void* address) {
    Dl_info found{};
    if (dladdr(address, &found) == 0 || found.dli_sname == nullptr) {
        return "?";
    }
    return found.dli_sname;
}

} // namespace

long liveMemories() {
    return s_live;
}

void recordMemories() {
    const std::lock_guard lock(s_guard);
    s_records.fill(Record());
    s_recording = true;
}

std::vector<std::string> recordedMemories() {
    s_recording = false;
    std::vector<std::string> lines;
    const Pause pause;
    for (const Record& one : s_records) {
        if (one.memory == nullptr) {
            continue;
        }
        std::string line = one.file == nullptr ? "new" : std::string(one.file) + ":" + std::to_string(one.line);
        for (int i = 3; i < one.depth; ++i) {
            line += " < " + functionAt(one.frames[static_cast<std::size_t>(i)]);
        }
        lines.push_back(line);
    }
    return lines;
}

namespace {

void* newMemory(std::size_t length) {
    if (comes(Kind::allocation, "new")) {
        throw std::bad_alloc();
    }
    if (void* const memory = taken(std::malloc(length == 0 ? 1 : length), nullptr, 0)) {
        return memory;
    }
    throw std::bad_alloc();
}

void deleteMemory(void* memory) noexcept {
    if (memory != nullptr) {
        --s_live;
        forget(memory);
        std::free(memory);
    }
}

} // namespace

} // namespace faults

void* operator new(std::size_t length) {
    return faults::newMemory(length);
}
void* operator new[](std::size_t length) {
    return faults::newMemory(length);
}
void* operator new(std::size_t length, const std::nothrow_t& /*tag*/) noexcept {
    try {
        return faults::newMemory(length);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t length, const std::nothrow_t& tag) noexcept {
    return operator new(length, tag);
}
void operator delete(void* memory) noexcept {
    faults::deleteMemory(memory);
}
void operator delete[](void* memory) noexcept {
    faults::deleteMemory(memory);
}
void operator delete(void* memory, std::size_t /*length*/) noexcept {
    faults::deleteMemory(memory);
}
void operator delete[](void* memory, std::size_t /*length*/) noexcept {
    faults::deleteMemory(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    faults::deleteMemory(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    faults::deleteMemory(memory);
}
