#include "Worker.h"

#include <norvcmsg/Exception.h>

#include <openssl/err.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

namespace faults {

/// One try.
struct Outcome {
    bool came = false;
    bool thrown = false;
    bool mayLeaveQueue = false; // of no memory, and of what has no parameter to tell it in
    Answer answer;
    std::string place;
    std::string queue; // what was left in OpenSSL's error queue
};

namespace {

constexpr long never = 1000000000;

std::string queueText() {
    std::string text;
    while (const unsigned long code = ERR_get_error()) {
        char line[256];
        ERR_error_string_n(code, line, sizeof line);
        text += std::string(text.empty() ? "" : "; ") + line;
    }
    ERR_clear_error(); // the entries keep texts of their own until then
    return text;
}

Outcome attempt(const Operation& operation, Kind kind, long number) {
    const pid_t self = getpid();
    Outcome outcome;
    try {
        arm(kind, number);
        outcome.answer = operation.act();
        outcome.came = disarm();
    } catch (const ChildLeaves&) {
        _exit(0);
    } catch (const Norvane::Exception& failure) {
        outcome.came = disarm();
        outcome.thrown = true;
        outcome.mayLeaveQueue = failure.parameters().empty();
        outcome.answer = {Answer::refused, failure.asString()};
    } catch (const std::bad_alloc&) {
        outcome.came = disarm();
        outcome.thrown = true;
        outcome.mayLeaveQueue = true;
        outcome.answer = {Answer::refused, "bad_alloc"};
    } catch (const StreamFailure&) {
        outcome.came = disarm();
        outcome.thrown = true;
        outcome.answer = {Answer::refused, "stream"};
    } catch (const std::exception& failure) {
        outcome.came = disarm();
        outcome.thrown = true;
        outcome.answer = {Answer::wrong, std::string("an exception that is not documented: ") + failure.what()};
    }
    if (getpid() != self) {
        _exit(3); // a child of a fault that did not leave
    }
    outcome.place = placeOfFault();
    outcome.queue = queueText();
    return outcome;
}

/// What nobody outside must notice.
bool isHarmless(Kind kind) {
    return kind == Kind::readIsShort || kind == Kind::writeIsShort || kind == Kind::callIsInterrupted ||
           kind == Kind::forks;
}

} // namespace

Worker::Worker(const Operation& operation, const Extent& extent, Board& board, int findings)
    : m_operation(operation),
      m_extent(extent),
      m_board(board),
      m_record(extent.record),
      m_findings(findings) {}

void Worker::work() {
    for (int warm = 0; warm < 3; ++warm) {
        const Outcome outcome = attempt(m_operation, Kind::allocation, never);
        if (!isSound(outcome)) {
            tell(Kind::allocation, 0, outcome.place, "without any fault: " + outcome.answer.text);
            return;
        }
    }
    for (int number = 0; number < kindCount; ++number) {
        const bool asked = !m_extent.only || *m_extent.only == static_cast<Kind>(number);
        if (asked && !m_board.kinds.at(static_cast<std::size_t>(number)).over) {
            tryAll(static_cast<Kind>(number));
        }
    }
    m_board.over = true;
}

void Worker::tryAll(Kind kind) {
    Progress& progress = m_board.kinds.at(static_cast<std::size_t>(kind));
    std::vector<long> chosen;
    if (m_extent.stacks) {
        chosen = placesOfDifferentStacks([&] { attempt(m_operation, kind, never); });
    } else {
        attempt(m_operation, kind, never);
    }
    progress.total = std::max(progress.total, never - leftOver());
    const long places = std::max(1L, m_extent.places / m_operation.weight);
    const bool one = m_extent.all || m_extent.stacks;
    const long step = one ? 1 : std::max(1L, progress.total / places);
    if (progress.next == 0) {
        progress.next = one ? 1 : 1 + progress.total % step;
    }
    // Operations differ a little from run to run: the end is where faults come no longer.
    static constexpr int misses = 3;
    auto told = std::chrono::steady_clock::now();
    for (int missed = 0; progress.next <= progress.total || (m_extent.all && missed < misses);) {
        if (m_extent.stacks) {
            const auto next = std::lower_bound(chosen.begin(), chosen.end(), progress.next);
            if (next == chosen.end()) {
                break;
            }
            progress.next = *next;
        }
        m_board.kind = static_cast<int>(kind);
        m_board.number = progress.next;
        progress.next += step;
        alarm(120);
        missed = tryOne(kind, m_board.number) ? 0 : missed + 1;
        if (const auto now = std::chrono::steady_clock::now(); now - told > std::chrono::seconds(2)) {
            told = now;
            m_record.write(m_operation.name, kind, progress);
        }
    }
    judgeNext(kind);
    progress.over = true;
    m_record.write(m_operation.name, kind, progress);
}

bool Worker::isSound(const Outcome& outcome) const {
    return m_operation.mustRefuse ? outcome.answer.verdict == Answer::refused
                                  : !outcome.thrown && outcome.answer.verdict == Answer::done;
}

void Worker::tell(Kind kind, long number, const std::string& place, const std::string& what) {
    const std::string line = lineOf({m_operation.name, kind, number, place, what});
    if (::write(m_findings, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::abort();
    }
    m_record.write(line);
}

bool Worker::tryOne(Kind kind, long number) {
    // Where every place is tried the operation is looked at after several, and after each one of them when it fails then.
    static constexpr std::size_t together = 16;
    const long memories = liveMemories();
    const int descriptors = openDescriptors();
    const int children = failedChildren();
    const Outcome outcome = attempt(m_operation, kind, number);
    if (!outcome.came) {
        return false;
    }
    ++m_board.kinds.at(static_cast<std::size_t>(kind)).tried.places;
    judge(kind, number, outcome);
    if (failedChildren() != children) {
        tell(kind, number, outcome.place, "the child that was forked came to a bad end");
    }
    m_unchecked.push_back(number);
    if (!(m_extent.all || m_extent.stacks) || m_unchecked.size() == together) {
        judgeNext(kind);
    }
    if (openDescriptors() != descriptors) {
        tell(kind, number, outcome.place, "descriptors are left open");
    }
    if (liveMemories() > memories) {
        confirmLeak(kind, number);
    }
    return true;
}

/// The operation without a fault works, or it is told after which fault it does not.
void Worker::judgeNext(Kind kind) {
    const std::vector<long> numbers = std::exchange(m_unchecked, {});
    if (numbers.empty()) {
        return;
    }
    const Outcome next = attempt(m_operation, Kind::allocation, never);
    if (isSound(next)) {
        return;
    }
    bool found = false;
    for (const long number : numbers) {
        const Outcome outcome = attempt(m_operation, kind, number);
        const Outcome after = attempt(m_operation, Kind::allocation, never);
        if (!isSound(after)) {
            found = true;
            tell(kind, number, outcome.place, "the next operation fails: " + after.answer.text);
        }
    }
    if (!found) {
        tell(kind, numbers.back(), "",
             "the next operation fails after one of " + std::to_string(numbers.size()) +
                 " faults: " + next.answer.text);
    }
}

void Worker::judge(Kind kind, long number, const Outcome& outcome) {
    const std::string& text = outcome.answer.text;
    Tried& tried = m_board.kinds.at(static_cast<std::size_t>(kind)).tried;
    if (outcome.thrown) {
        ++tried.thrown;
    } else if (outcome.answer.verdict == Answer::done) {
        ++tried.done;
    } else {
        ++tried.refused;
    }
    if (outcome.answer.verdict == Answer::wrong) {
        tell(kind, number, outcome.place, "wrong: " + text);
    } else if (m_operation.mustRefuse && outcome.answer.verdict == Answer::done) {
        tell(kind, number, outcome.place, "wrong: what is bad was taken: " + text);
    } else if (!outcome.thrown && outcome.answer.verdict == Answer::refused && !m_operation.mustRefuse &&
               !m_operation.mayRefuse) {
        tell(kind, number, outcome.place, "misjudged: " + text);
    } else if (!m_operation.mustRefuse && isHarmless(kind) && outcome.answer.verdict != Answer::done) {
        tell(kind, number, outcome.place, "not carried on: " + text);
    }
    // OpenSSL may go on without a memory and leave the word of it.
    const bool ofMemory = kind == Kind::opensslAllocation && outcome.answer.verdict == Answer::done &&
                          outcome.queue.find("malloc failure") != std::string::npos;
    if (!outcome.queue.empty() && !m_operation.leavesQueue && !outcome.mayLeaveQueue && !ofMemory) {
        tell(kind, number, outcome.place, "left in the error queue: " + outcome.queue + " after " + text);
    }
}

/// Something may have been made for good, once. A leak is what each run adds.
void Worker::confirmLeak(Kind kind, long number) {
    long grown = 0;
    for (int turn = 0; turn < 3; ++turn) {
        const long before = liveMemories();
        if (turn == 2) {
            recordMemories();
        }
        attempt(m_operation, kind, number);
        if (turn == 2) {
            m_leaks = recordedMemories();
        }
        attempt(m_operation, Kind::allocation, never);
        if (liveMemories() <= before) {
            return;
        }
        grown = liveMemories() - before;
    }
    std::string text = "leak: " + std::to_string(grown);
    for (std::size_t i = 0; i < std::min<std::size_t>(m_leaks.size(), 3); ++i) {
        text += " | " + m_leaks[i];
    }
    tell(kind, number, placeOfFault(), text);
}

} // namespace faults
