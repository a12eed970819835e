#pragma once

#include "Driver.h"

#include <map>
#include <utility>

namespace faults {

/// How far an operation came with a kind of fault.
struct Progress {
    long next = 0;  ///< the fault that is tried next; 0 before the first
    long total = 0; ///< how many there are
    bool over = false;
    Tried tried;
};

/// A finding as a line of text, and back.
std::string lineOf(const Finding& finding);
Finding findingOf(const std::string& line);

/// A file to which is written what was tried, so that a run that was ended goes on where it was: lines with tabs between their
/// words, the last one of an operation and a kind being the one that counts.
class Record {
public:
    /// Without a name nothing is written and nothing is known.
    explicit Record(std::string file) : m_file(std::move(file)) {}
    void write(const std::string& operation, Kind kind, const Progress& progress) const;
    /// A line of a finding.
    void write(const std::string& line) const;

    struct Known {
        std::map<Kind, Progress> kinds;
        std::vector<Finding> findings;
    };
    [[nodiscard]] Known known(const std::string& operation) const;

private:
    std::string m_file;
};

} // namespace faults
