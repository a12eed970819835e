#include "Driver.h"

#include <norvcmsg/Exception.h>

#include <openssl/err.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <regex>
#include <sstream>

namespace faults {

namespace {

/// What the worker tells: in memory that both processes have.
struct Board {
    int kind;
    long number; // the fault that is being tried
    bool over;
    Tried tried;
    char place[200];
};

/// One try.
struct Outcome {
    bool came = false;
    bool thrown = false;
    bool mayLeaveQueue = false; // of no memory, and of what has no parameter to tell it in
    Answer answer;
    std::string place;
    std::string queue; // what was left in OpenSSL's error queue
};

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

class Worker {
public:
    Worker(const Operation& operation, const Extent& extent, Board& board, int findings)
        : m_operation(operation),
          m_extent(extent),
          m_board(board),
          m_findings(findings) {}

    /// From a kind and number on.
    void work(int firstKind, long firstNumber) {
        static constexpr long never = 1000000000;
        for (int warm = 0; warm < 3; ++warm) {
            const Outcome outcome = attempt(m_operation, Kind::allocation, never);
            if (!isSound(outcome)) {
                tell(Kind::allocation, 0, outcome.place, "without any fault: " + outcome.answer.text);
                return;
            }
        }
        for (int number = firstKind; number < kindCount; ++number) {
            const auto kind = static_cast<Kind>(number);
            attempt(m_operation, kind, never);
            const long total = never - leftOver();
            const long places = std::max(1L, m_extent.places / m_operation.weight);
            const long step = m_extent.all ? 1 : std::max(1L, total / places);
            for (long at = number == firstKind && firstNumber != 0 ? firstNumber : 1 + total % step; at <= total;
                 at += step) {
                m_step = step;
                m_board.kind = number;
                m_board.number = at;
                alarm(120);
                tryOne(kind, at);
            }
        }
        m_board.over = true;
    }

private:
    [[nodiscard]] bool isSound(const Outcome& outcome) const {
        return m_operation.mustRefuse ? outcome.answer.verdict == Answer::refused
                                      : !outcome.thrown && outcome.answer.verdict == Answer::done;
    }
    void tell(Kind kind, long number, const std::string& place, const std::string& what) const {
        std::string line = std::string(nameOf(kind)) + "\t" + std::to_string(number) + "\t" + place + "\t" + what;
        std::replace(line.begin(), line.end(), '\n', ' ');
        line += '\n';
        if (::write(m_findings, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            std::abort();
        }
    }
    void tryOne(Kind kind, long number) {
        const long memories = liveMemories();
        const int descriptors = openDescriptors();
        const int children = failedChildren();
        const Outcome outcome = attempt(m_operation, kind, number);
        if (!outcome.came) {
            return;
        }
        std::snprintf(m_board.place, sizeof m_board.place, "%s", outcome.place.c_str());
        ++m_board.tried.places;
        judge(kind, number, outcome);
        if (failedChildren() != children) {
            tell(kind, number, outcome.place, "the child that was forked came to a bad end");
        }
        const Outcome next = attempt(m_operation, Kind::allocation, 1000000000);
        if (!isSound(next)) {
            tell(kind, number, outcome.place, "the next operation fails: " + next.answer.text);
        }
        if (openDescriptors() != descriptors) {
            tell(kind, number, outcome.place, "descriptors are left open");
        }
        if (liveMemories() > memories) {
            confirmLeak(kind, number);
        }
    }
    void judge(Kind kind, long number, const Outcome& outcome) {
        const std::string& text = outcome.answer.text;
        if (outcome.thrown) {
            ++m_board.tried.thrown;
        } else if (outcome.answer.verdict == Answer::done) {
            ++m_board.tried.done;
        } else {
            ++m_board.tried.refused;
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
    /// What nobody outside must notice.
    static bool isHarmless(Kind kind) {
        return kind == Kind::readIsShort || kind == Kind::writeIsShort || kind == Kind::callIsInterrupted ||
               kind == Kind::forks;
    }
    /// Something may have been made for good, once. A leak is what each run adds.
    void confirmLeak(Kind kind, long number) {
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
            attempt(m_operation, Kind::allocation, 1000000000);
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

    const Operation& m_operation;
    Extent m_extent;
    Board& m_board;
    int m_findings;
    long m_step = 1;
    std::vector<std::string> m_leaks;
};

/// What the worker left on standard error, as "reason: function < function ...".
std::string crashOf(const std::string& output, int status) {
    std::string text = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                           : "exit code " + std::to_string(WEXITSTATUS(status));
    static const std::regex summary("(AddressSanitizer: [a-zA-Z-]+|runtime error: .*|terminate called.*)");
    static const std::regex frame(R"(\n\s+#\d+ 0x[0-9a-f]+\s+(?:in (\S+)[^\n(]*)?\(?([^\n]*))");
    std::smatch found;
    if (std::regex_search(output, found, summary)) {
        text += " " + found[1].str();
    }
    int frames = 0;
    for (auto at = std::sregex_iterator(output.begin(), output.end(), frame);
         at != std::sregex_iterator() && frames < 14; ++at, ++frames) {
        std::string where = (*at)[1].str();
        if (where.empty()) {
            where = (*at)[2].str();
        }
        text += (frames == 0 ? ": " : " < ") + where;
    }
    return text;
}

std::string contentOf(std::FILE* file) {
    std::string all;
    std::rewind(file);
    char piece[4096];
    for (std::size_t count = 0; (count = std::fread(piece, 1, sizeof piece, file)) != 0;) {
        all.append(piece, count);
    }
    return all;
}

Finding findingOf(const std::string& operation, const std::string& line) {
    Finding finding;
    finding.operation = operation;
    std::istringstream in(line);
    std::string kind;
    std::string number;
    std::getline(in, kind, '\t');
    std::getline(in, number, '\t');
    std::getline(in, finding.place, '\t');
    std::getline(in, finding.what);
    for (int i = 0; i < kindCount; ++i) {
        if (kind == nameOf(static_cast<Kind>(i))) {
            finding.kind = static_cast<Kind>(i);
        }
    }
    finding.number = std::stol(number);
    return finding;
}

} // namespace

std::string textOf(const Finding& finding) {
    return finding.operation + ", " + nameOf(finding.kind) + " " + std::to_string(finding.number) + " at " +
           finding.place + ": " + finding.what;
}

Extent extent() {
    const char* const asked = std::getenv("NORV_FAULTS");
    if (asked == nullptr) {
        return {};
    }
    return std::strcmp(asked, "all") == 0 ? Extent{true, 0} : Extent{false, std::max(1L, std::atol(asked))};
}

std::vector<Finding> run(const Operation& operation, const Extent& extent, Tried& tried) {
    auto* const board =
        static_cast<Board*>(mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *board = Board();
    std::vector<Finding> findings;
    int kind = 0;
    long number = 0;
    while (!board->over) {
        std::FILE* const lines = std::tmpfile();
        std::FILE* const output = std::tmpfile();
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            dup2(fileno(output), STDERR_FILENO);
            Worker(operation, extent, *board, fileno(lines)).work(kind, number);
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        std::istringstream told(contentOf(lines));
        for (std::string line; std::getline(told, line);) {
            findings.push_back(findingOf(operation.name, line));
        }
        if (status != 0) {
            Finding crash;
            crash.operation = operation.name;
            crash.kind = static_cast<Kind>(board->kind);
            crash.number = board->number;
            crash.what = "crash: " + crashOf(contentOf(output), status);
            findings.push_back(crash);
        } else if (!board->over) {
            board->over = true; // it fails without a fault
        }
        std::fclose(lines);
        std::fclose(output);
        kind = board->kind;
        number = board->number + 1;
    }
    tried = board->tried;
    munmap(board, sizeof(Board));
    return findings;
}

} // namespace faults
