#pragma once

/// \file
/// What a command works on: one input and one output as ever, or many inputs with a line told of each.

#include "commandline/CommandLine.h"
#include "files/Output.h"
#include "show/Description.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace norvcrypt {

/// One of many inputs, and the path of what is made of it; empty when nothing is written.
struct Item {
    const std::string& path;
    std::string output;
    bool inJson; ///< the line is an object, for which `Outcome::facts` are wanted
};

/// Refuses the option for one output, where there may be none.
inline constexpr const char* outOfMany =
    "--out takes what is made of one input: give --out-dir for several (--files-from, --jobs, --quiet)";

/// What became of it. The texts are shown as they are.
struct Outcome {
    Exit exit = Exit::good;
    std::string verdict;                       ///< in few words: "signed"
    std::string reason{};                      ///< what is to be said beside
    Description facts = Description::object(); ///< for --json, beside those that every line has
};

/// Does one of them, without a word; called by several threads at once. Throws what it cannot do.
using WorkOnItem = std::function<Outcome(const Item& item, Inputs& inputs)>;

/// How outputs are named after the last part of the input's path.
using OutputName = std::function<std::string(const std::string& name)>;

/// The name with an ending more.
OutputName withEnding(const std::string& ending);
/// The name without ".p7m" or ".p7s" at its end; one that has neither gets ".content".
std::string withoutSignatureEnding(const std::string& name);

/// The file of that name, where a name is no more than that: "-" is a file, too.
std::string fileNamed(const std::string& name);

/// The options that make a command take many inputs. Lives until the action has run.
class ManyOptions {
public:
    /// Whether the command writes something for each input, or can.
    enum class Outputs { needed, possible, none };
    /// Whether the command has an option --json of its own.
    enum class Json { ofCommand, added };

    /// Adds the option that names inputs ("--in", with "BODY" for its value), and those for many of them.
    ManyOptions(Command& command, const std::string& name, const std::string& value, const std::string& help,
                Outputs outputs, Json json);
    ManyOptions(const ManyOptions&) = delete;
    ManyOptions& operator=(const ManyOptions&) = delete;

    /// Whether lines are told, of however many inputs: several were named, or one of the options for many was given.
    [[nodiscard]] bool areMany() const;
    /// Whether an input was named at all.
    [[nodiscard]] bool isNamed() const { return !m_named.empty() || m_list; }
    /// The only input; "-" when none was named.
    [[nodiscard]] std::string one() const { return m_named.empty() ? "-" : m_named.front(); }
    [[nodiscard]] Option* outDirectory() const noexcept { return m_outDirectory; }

    /// Works on all of them and tells a line of each on standard output, in their order.
    /// \param shared     what was read for all of them; no output is one of these
    /// \param json       whether --json was given, where the command has it
    /// \param name       null: there are no outputs
    /// \param access     of the folder of the outputs, when it is made
    /// \throws Failure: that cannot be begun; nothing was written then. Or the lines cannot be written
    Exit run(Inputs& shared, bool json, const OutputName& name, OutputFile::Access access,
             const WorkOnItem& work) const;

private:
    [[nodiscard]] std::vector<std::string> paths(Inputs& shared) const;
    [[nodiscard]] std::string outputOf(const std::string& path, const OutputName& name) const;
    void checkOutputs(const std::vector<std::string>& paths, const OutputName& name, Inputs& shared) const;
    void prepareFolder(OutputFile::Access access) const;

    std::string m_option;
    Outputs m_outputs;
    std::vector<std::string> m_named;
    std::optional<std::string> m_list;
    std::optional<std::string> m_folder;
    std::optional<unsigned int> m_jobs;
    bool m_quiet = false;
    bool m_json = false;
    Option* m_outDirectory = nullptr;
};

} // namespace norvcrypt
