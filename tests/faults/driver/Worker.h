#pragma once

#include "Driver.h"
#include "Record.h"

#include <array>

namespace faults {

/// What the worker tells: in memory that both processes have.
struct Board {
    int kind; ///< of the fault that is being tried
    long number;
    bool over;
    std::array<Progress, kindCount> kinds;
};

/// Tries an operation with its faults, in a process of its own; `findings` gets a line for each thing that must not be.
class Worker {
public:
    Worker(const Operation& operation, const Extent& extent, Board& board, int findings);

    /// What the board does not say was done.
    void work();

private:
    void tryAll(Kind kind);
    bool tryOne(Kind kind, long number);
    void judge(Kind kind, long number, const struct Outcome& outcome);
    void judgeNext(Kind kind);
    void confirmLeak(Kind kind, long number);
    [[nodiscard]] bool isSound(const struct Outcome& outcome) const;
    void tell(Kind kind, long number, const std::string& place, const std::string& what);

    const Operation& m_operation;
    Extent m_extent;
    Board& m_board;
    Record m_record;
    int m_findings;
    std::vector<long> m_unchecked; // faults since the operation was last seen to work
    std::vector<std::string> m_leaks;
};

} // namespace faults
