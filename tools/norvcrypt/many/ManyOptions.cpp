#include "many/ManyOptions.h"
#include "files/Colours.h"
#include "files/FileIdentity.h"
#include "files/Interrupts.h"
#include "files/Progress.h"
#include "many/OrderedWork.h"
#include "openssl/Start.h"
#include "show/TextAndJson.h"

#include <norvcmsg/Escape.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace norvcrypt {

using Norvane::escapeForDisplay;

namespace {

/// The last part of a path; slashes at its end do not count.
std::string lastPartOf(std::string path) {
    path.erase(std::min(path.find_last_not_of('/') + 1, path.size()));
    return path.substr(path.rfind('/') + 1);
}

/// The names in a list: behind each a NUL byte, or, where there is none in the whole list, a line feed.
std::vector<std::string> namesIn(const Norvane::Buffer& list) {
    const char* const begin = reinterpret_cast<const char*>(list.data());
    const char* const end = begin + list.length();
    const char separator = std::find(begin, end, '\0') == end ? '\n' : '\0';
    std::vector<std::string> names;
    for (const char* at = begin; at != end;) {
        const char* const stop = std::find(at, end, separator);
        if (stop != at)
            names.emplace_back(at, stop);
        at = stop == end ? end : stop + 1;
    }
    return names;
}

/// Without links; as it is given where there is nothing.
std::string realPathOf(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), std::free);
    return real ? real.get() : path;
}

/// What tells apart two outputs: links that lead to one file are one.
/// \param folder the real path of the output's
std::string placeOf(const std::string& folder, const std::string& output) {
    struct stat status {};
    if (lstat(output.c_str(), &status) == 0 && S_ISLNK(status.st_mode))
        return realPathOf(output);
    return folder + (folder == "/" ? "" : "/") + lastPartOf(output);
}

void refuseFolder(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        throw Failure(path + " is a folder: give the files in it");
}

/// As many at a time as there are descriptors for, so that none fails for want of one that another has.
unsigned int jobsWithDescriptors(unsigned int jobs) {
    constexpr rlim_t ofEach = 6; // the input, its body, the output and its folder, what is kept aside
    constexpr rlim_t ofAll = 16;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return jobs;
    if (const rlim_t wanted = std::min(jobs * ofEach + ofAll, limit.rlim_max); limit.rlim_cur < wanted) {
        const rlimit more{.rlim_cur = wanted, .rlim_max = limit.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &more) == 0)
            limit = more;
    }
    const rlim_t room = limit.rlim_cur > ofAll ? (limit.rlim_cur - ofAll) / ofEach : 0;
    return static_cast<unsigned int>(std::clamp<rlim_t>(room, 1, jobs));
}

/// Counts what came of the inputs, and tells it.
class Lines {
public:
    Lines(std::size_t count, bool quiet)
        : m_count(count),
          m_quiet(quiet),
          m_progress("working on " + std::to_string(count) + " inputs", Progress::Unit::inputs) {
        m_progress.expect(count);
    }

    void tell(const Report& report) {
        ++m_of[static_cast<std::size_t>(report.exit)];
        if (!m_quiet || report.exit != Exit::good) {
            m_progress.clear();
            TextOutput out;
            out.text(report.text);
            out.flush();
        }
        m_progress.advance(1);
    }
    /// The worst wins; what is not good is summed up on standard error.
    Exit end() {
        m_progress.clear();
        if (m_of[0] == m_count)
            return Exit::good;
        reportError(std::to_string(m_count) + " inputs: " + std::to_string(m_of[0]) + " done, " +
                    std::to_string(m_of[1]) + " refused, " + std::to_string(m_of[2]) + " failed");
        return m_of[2] != 0 ? Exit::failed : Exit::refused;
    }

private:
    std::size_t m_count;
    bool m_quiet;
    Progress m_progress;
    std::array<std::size_t, 3> m_of{}; ///< by exit code
};

/// The name ends in front of the first ": " of a line, whatever it is: a file called "other: good" speaks for no other.
std::string nameInLine(const std::string& path) {
    std::string name = escapeForDisplay(path);
    for (std::size_t at = 0; (at = name.find(": ", at)) != std::string::npos;)
        name.replace(at, 1, "\\x3A");
    return name;
}

std::string lineOf(const Item& item, const Outcome& outcome) {
    const Colours colours;
    const std::string verdict = outcome.exit == Exit::good      ? colours.good(outcome.verdict)
                                : outcome.exit == Exit::refused ? colours.bad(outcome.verdict)
                                                                : colours.doubtful(outcome.verdict);
    return nameInLine(item.path) + ": " + verdict + (outcome.reason.empty() ? "" : ": " + outcome.reason) + "\n";
}

std::string jsonLineOf(const Item& item, const Outcome& outcome) {
    Description line{{"file", item.path}, {"exitCode", static_cast<int>(outcome.exit)}};
    if (!item.output.empty() && outcome.exit == Exit::good)
        line["output"] = item.output;
    line.update(outcome.facts);
    return asJsonLine(line);
}

Report reportOf(const Item& item, const Outcome& outcome, bool quiet) {
    if (quiet && outcome.exit == Exit::good)
        return {};
    return {.exit = outcome.exit, .text = item.inJson ? jsonLineOf(item, outcome) : lineOf(item, outcome)};
}

/// What cannot be done with one, or told of it, keeps none of the others from being done.
Report reportOf(const Item& item, const Inputs& shared, const WorkOnItem& work, bool quiet) {
    try {
        refuseFolder(item.path);
        Inputs inputs(&shared);
        return reportOf(item, work(item, inputs), quiet);
    } catch (...) {
        const Told told = toldOfException();
        if (item.inJson)
            return {.exit = told.exit, .text = asJsonLine(item.path, static_cast<int>(told.exit), told.text)};
        return {.exit = told.exit,
                .text = lineOf(item, {.exit = told.exit,
                                      .verdict = told.exit == Exit::refused ? "refused" : "failed",
                                      .reason = escapeForDisplay(told.text)})};
    }
}

} // namespace

OutputName withEnding(const std::string& ending) {
    return [ending](const std::string& name) { return name + ending; };
}

std::string withoutSignatureEnding(const std::string& name) {
    constexpr std::size_t length = 4;
    if (name.size() > length) {
        std::string ending = name.substr(name.size() - length);
        std::ranges::transform(ending, ending.begin(), [](char one) {
            return static_cast<char>(std::tolower(static_cast<unsigned char>(one)));
        });
        if (ending == ".p7m" || ending == ".p7s")
            return name.substr(0, name.size() - length);
    }
    return name + ".content";
}

std::string fileNamed(const std::string& name) {
    return name == "-" ? "./-" : name;
}

ManyOptions::ManyOptions(Command& command, const std::string& name, const std::string& value, const std::string& help,
                         Outputs outputs, Json json)
    : m_option(name),
      m_outputs(outputs) {
    command.option(name, m_named, help)->typeName(value);
    command
        .option("--files-from", m_list,
                "More of " + name +
                    ": their names in a file, a line each, or behind each a NUL byte (find -print0); "
                    "\"-\" is standard input")
        ->typeName("FILE");
    if (outputs != Outputs::none)
        m_outDirectory = command
                             .option("--out-dir", m_folder,
                                     "The folder for what is made of each of several inputs, under the input's name; "
                                     "it is made when it is not there")
                             ->typeName("DIR");
    command.option("--jobs", m_jobs, "How many inputs to work on at a time; without it, as many as there are cores")
        ->range(1, mostWriters)
        ->typeName("N");
    command.flag("--quiet", m_quiet, "Tell nothing of inputs that are done, or good");
    if (json == Json::added)
        command.flag("--json", m_json, "Tell of each of several inputs in JSON, a line each (docs/json.md)");
}

bool ManyOptions::areMany() const {
    return m_named.size() > 1 || m_list || m_folder || m_jobs || m_quiet || m_json;
}

std::vector<std::string> ManyOptions::paths(Inputs& shared) const {
    std::vector<std::string> paths = m_named;
    if (m_list) {
        const std::vector<std::string> listed = namesIn(shared.readAll(*m_list));
        if (listed.empty())
            throw Failure("there is no name in " + inputName(*m_list));
        for (const std::string& name : listed)
            paths.push_back(fileNamed(name));
    }
    if (paths.empty() || std::ranges::find(paths, "-") != paths.end())
        throw Failure("standard input is not one of several inputs, or one with --out-dir: name files with " +
                      m_option);
    return paths;
}

std::string ManyOptions::outputOf(const std::string& path, const OutputName& name) const {
    return m_folder && name ? *m_folder + (m_folder->ends_with('/') ? "" : "/") + name(lastPartOf(path)) : "";
}

/// Before anything is written: no output may be that of two inputs, or one of the inputs.
void ManyOptions::checkOutputs(const std::vector<std::string>& paths, const OutputName& name, Inputs& shared) const {
    const std::string folder = realPathOf(*m_folder);
    std::unordered_map<std::string, const std::string*> places;
    places.reserve(paths.size());
    std::vector<std::pair<std::string, FileIdentity>> existing;
    for (const std::string& path : paths) {
        const std::string output = outputOf(path, name);
        const auto [other, isNew] = places.try_emplace(placeOf(folder, output), &path);
        if (!isNew)
            throw Failure("two inputs would be written to " + output + ": " +
                          std::string(*other->second).append(" and ").append(path));
        struct stat status {};
        if (stat(output.c_str(), &status) == 0)
            existing.emplace_back(output, FileIdentity(status));
    }
    if (existing.empty())
        return;
    for (const std::string& path : paths)
        shared.note(path);
    for (const auto& [output, file] : existing)
        if (shared.hold(file))
            throw Failure("cannot write " + output + ": it is an input too, which would be lost");
}

void ManyOptions::prepareFolder(OutputFile::Access access) const {
    if (mkdir(m_folder->c_str(), access == OutputFile::Access::owner ? 0700 : 0777) == 0)
        return;
    if (errno != EEXIST)
        throw Failure("cannot make the folder " + *m_folder, errno);
    struct stat status {};
    if (stat(m_folder->c_str(), &status) != 0)
        throw Failure("cannot write to the folder " + *m_folder, errno);
    if (!S_ISDIR(status.st_mode))
        throw Failure(*m_folder + " is no folder");
    if (::access(m_folder->c_str(), W_OK | X_OK) != 0)
        throw Failure("cannot write to the folder " + *m_folder, errno);
}

Exit ManyOptions::run(Inputs& shared, bool json, const OutputName& name, OutputFile::Access access,
                      const WorkOnItem& work) const {
    if (m_outputs == Outputs::needed && !m_folder)
        throw Failure("several inputs need --out-dir: the folder for what is made of each");
    const std::vector<std::string> all = paths(shared);
    if (m_folder) {
        checkOutputs(all, name, shared);
        prepareFolder(access);
    }
    needAllAlgorithms(); // no thread has to make them known
    const bool inJson = json || m_json;
    Lines lines(all.size(), m_quiet);
    doInOrder(
        all.size(), jobsWithDescriptors(m_jobs.value_or(std::min<unsigned int>(availableCores(), mostWriters))),
        [&](std::size_t at) {
            return reportOf({all[at], outputOf(all[at], name), inJson}, shared, work, m_quiet);
        },
        [&](const Report& report) { lines.tell(report); });
    return lines.end();
}

} // namespace norvcrypt
