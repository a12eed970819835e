#include "Driver.h"

#include "Worker.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <regex>
#include <sstream>
#include <utility>

namespace faults {

namespace {

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

} // namespace

std::string textOf(const Finding& finding) {
    return finding.operation + ", " + nameOf(finding.kind) + " " + std::to_string(finding.number) + " at " +
           finding.place + ": " + finding.what;
}

Tried& Tried::operator+=(const Tried& other) {
    places += other.places;
    done += other.done;
    refused += other.refused;
    thrown += other.thrown;
    return *this;
}

Extent extent() {
    Extent extent;
    if (const char* const asked = std::getenv("NORV_FAULTS"); asked != nullptr) {
        extent.all = std::strcmp(asked, "all") == 0;
        extent.stacks = std::strcmp(asked, "stacks") == 0;
        extent.places = extent.all || extent.stacks ? 0 : std::max(1L, std::atol(asked));
    }
    if (const char* const file = std::getenv("NORV_FAULTS_RECORD"); file != nullptr) {
        extent.record = file;
    }
    return extent;
}

std::vector<Finding> run(const Operation& operation, const Extent& extent, Tried& tried) {
    auto* const board =
        static_cast<Board*>(mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *board = Board();
    const Record record(extent.record);
    Record::Known known = record.known(operation.name);
    std::vector<Finding> findings = std::move(known.findings);
    for (const auto& [kind, progress] : known.kinds) {
        board->kinds.at(static_cast<std::size_t>(kind)) = progress;
    }
    std::pair<int, long> last{-1, -1};
    while (!board->over) {
        std::FILE* const lines = std::tmpfile();
        std::FILE* const output = std::tmpfile();
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            dup2(fileno(output), STDERR_FILENO);
            Worker(operation, extent, *board, fileno(lines)).work();
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        std::istringstream told(contentOf(lines));
        for (std::string line; std::getline(told, line);) {
            findings.push_back(findingOf(line));
        }
        if (status != 0) {
            findings.push_back({operation.name, static_cast<Kind>(board->kind), board->number, "",
                                "crash: " + crashOf(contentOf(output), status)});
            record.write(lineOf(findings.back()));
            const std::pair<int, long> place{board->kind, board->number};
            board->over = place == last; // it does not even come as far as the next fault
            last = place;
        } else if (!board->over) {
            board->over = true; // it fails without a fault
        }
        std::fclose(lines);
        std::fclose(output);
    }
    for (const Progress& progress : board->kinds) {
        tried += progress.tried;
    }
    munmap(board, sizeof(Board));
    return findings;
}

} // namespace faults
