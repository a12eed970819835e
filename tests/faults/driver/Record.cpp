#include "Record.h"

#include <fstream>
#include <sstream>

namespace faults {

namespace {

Kind kindOf(const std::string& name) {
    for (int i = 0; i < kindCount; ++i) {
        if (name == nameOf(static_cast<Kind>(i))) {
            return static_cast<Kind>(i);
        }
    }
    throw std::invalid_argument("no kind of fault: " + name);
}

std::string oneLine(std::string text) {
    for (char& one : text) {
        if (one == '\n' || one == '\t') {
            one = ' ';
        }
    }
    return text;
}

} // namespace

std::string lineOf(const Finding& finding) {
    return "found\t" + finding.operation + "\t" + nameOf(finding.kind) + "\t" + std::to_string(finding.number) + "\t" +
           oneLine(finding.place) + "\t" + oneLine(finding.what) + "\n";
}

Finding findingOf(const std::string& line) {
    std::istringstream in(line);
    Finding finding;
    std::string word;
    std::getline(in, word, '\t');
    std::getline(in, finding.operation, '\t');
    std::getline(in, word, '\t');
    finding.kind = kindOf(word);
    std::getline(in, word, '\t');
    finding.number = std::stol(word);
    std::getline(in, finding.place, '\t');
    std::getline(in, finding.what);
    return finding;
}

void Record::write(const std::string& operation, Kind kind, const Progress& progress) const {
    const Pause pause;
    std::ostringstream line;
    line << "tried\t" << operation << '\t' << nameOf(kind) << '\t' << progress.next << '\t' << progress.total << '\t'
         << progress.over << '\t' << progress.tried.places << '\t' << progress.tried.done << '\t'
         << progress.tried.refused << '\t' << progress.tried.thrown << '\n';
    write(line.str());
}

void Record::write(const std::string& line) const {
    const Pause pause;
    if (!m_file.empty()) {
        std::ofstream(m_file, std::ios::app) << line;
    }
}

Record::Known Record::known(const std::string& operation) const {
    Known known;
    std::ifstream in(m_file);
    for (std::string line; !m_file.empty() && std::getline(in, line);) {
        std::istringstream words(line);
        std::string what;
        std::string name;
        std::string kind;
        std::getline(words, what, '\t');
        std::getline(words, name, '\t');
        std::getline(words, kind, '\t');
        if (name != operation) {
            continue;
        }
        if (what == "found") {
            known.findings.push_back(findingOf(line));
            continue;
        }
        Progress progress;
        if (words >> progress.next >> progress.total >> progress.over >> progress.tried.places >> progress.tried.done >>
            progress.tried.refused >> progress.tried.thrown) { // a line that was cut off does not count
            known.kinds[kindOf(kind)] = progress;
        }
    }
    return known;
}

} // namespace faults
