#include "State.h"

#include <dirent.h>
#include <execinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

namespace faults {

thread_local State state;
thread_local std::vector<std::size_t>* stacks = nullptr;

namespace {

int s_failedChildren = 0;
constexpr std::size_t s_piece = 200;

/// How many of the next `count` bytes pass before the fault; `count` when it does not come among them.
std::size_t passing(Kind kind, std::size_t count, const char* place) {
    State& mine = state;
    if (!mine.armed || mine.paused != 0 || mine.kind != kind || mine.came) {
        return count;
    }
    if (stacks != nullptr) {
        noteStack(count);
    }
    if (mine.left > static_cast<long>(count)) {
        mine.left -= static_cast<long>(count);
        return count;
    }
    const auto before = static_cast<std::size_t>(mine.left - 1);
    mine.left = 0;
    mine.came = true;
    mine.place = place;
    return before;
}

class SourceImpl : public Norvane::MediaInImpl {
public:
    explicit SourceImpl(std::string bytes) : m_bytes(std::move(bytes)) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_position == m_bytes.size(); }
    int peek() const override { return atEnd() ? -1 : static_cast<unsigned char>(m_bytes[m_position]); }
    int read(unsigned char* out, unsigned int length) override {
        forkHere("source", true);
        const std::size_t wanted = std::min({std::size_t{length}, s_piece, m_bytes.size() - m_position});
        const std::size_t count = m_broken ? 0 : passing(Kind::sourceThrows, wanted, "source");
        m_broken = m_broken || count != wanted;
        if (m_broken && count == 0) {
            throw StreamFailure();
        }
        std::copy_n(m_bytes.data() + m_position, count, out);
        m_position += count;
        return static_cast<int>(count);
    }

private:
    std::string m_bytes;
    std::size_t m_position = 0;
    bool m_broken = false;
};

class TargetImpl : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        forkHere("target", true);
        const std::size_t count = m_broken ? 0 : passing(Kind::targetThrows, length, "target");
        m_broken = m_broken || count != length;
        const Pause pause;
        content.append(reinterpret_cast<const char*>(data), count);
        if (m_broken) {
            throw StreamFailure();
        }
    }
    void end() override { ended = true; }

    std::string content;
    bool ended = false;

private:
    bool m_broken = false;
};

} // namespace

const char* nameOf(Kind kind) {
    static const char* const names[kindCount] = {
        "opensslAllocation", "allocation",        "readFails", "readIsShort",  "writeFails",   "writeIsShort",
        "diskIsFull",        "callIsInterrupted", "callFails", "sourceThrows", "targetThrows", "forks"};
    return names[static_cast<int>(kind)];
}

void arm(Kind kind, long number) {
    state = State();
    state.kind = kind;
    state.left = number;
    state.armed = true;
}

bool disarm() {
    state.armed = false;
    return state.came;
}

void noteStack(std::size_t times) noexcept {
    const Pause pause;
    std::array<void*, 40> frames{};
    const int depth = backtrace(frames.data(), static_cast<int>(frames.size()));
    const std::string_view bytes(reinterpret_cast<const char*>(frames.data()),
                                 sizeof(void*) * static_cast<std::size_t>(depth));
    stacks->insert(stacks->end(), times, std::hash<std::string_view>()(bytes));
}

std::vector<long> placesOfDifferentStacks(const std::function<void()>& act) {
    std::vector<std::size_t> found;
    stacks = &found;
    act();
    stacks = nullptr;
    std::set<std::size_t> seen;
    std::vector<long> places;
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (seen.insert(found[i]).second) {
            places.push_back(static_cast<long>(i) + 1);
        }
    }
    return places;
}

long leftOver() {
    return state.left;
}

std::string placeOfFault() {
    return state.place + (state.line == 0 ? std::string() : ":" + std::to_string(state.line));
}

Pause::Pause() noexcept {
    ++state.paused;
}
Pause::~Pause() {
    --state.paused;
}

Norvane::MediaIn source(std::string bytes) {
    return Norvane::MediaIn(Norvane::makeReference<SourceImpl, Norvane::MediaInImpl>(std::move(bytes)));
}

Target::Target() : MediaOut(Norvane::makeReference<TargetImpl, Norvane::MediaOutImpl>()) {}
const std::string& Target::content() const {
    return dynamic_cast<const TargetImpl&>(*bodyOrNull()).content;
}
bool Target::ended() const {
    return dynamic_cast<const TargetImpl&>(*bodyOrNull()).ended;
}

int openDescriptors() {
    const Pause pause;
    DIR* const directory = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

void forkHere(const char* place, bool mayThrow) {
    if (!comes(Kind::forks, place)) {
        return;
    }
    const Pause pause;
    const pid_t child = fork();
    if (child == 0) {
        if (mayThrow) {
            throw ChildLeaves();
        }
        _exit(0);
    }
    int status = -1;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        ++s_failedChildren;
    }
}

int failedChildren() {
    return s_failedChildren;
}

} // namespace faults
