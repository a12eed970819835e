#pragma once

#include "files/FileIdentity.h"
#include "files/Progress.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace norvcrypt {

/// Why one of many inputs or outputs is refused that is a pipe, a device or the like.
inline constexpr const char* notAFile = "it is no file (of many inputs and outputs each has to be one)";

/// How an input is named in messages.
std::string inputName(const std::string& path);

/// The inputs of one command, and the files that its outputs replace: none may be both. "-" is standard input, which can
/// be read only once.
class Inputs {
public:
    using EachFile = std::function<void(const std::function<void(const std::string& path)>&)>;

    Inputs() = default;
    /// The inputs of one of several pieces of work, beside those that all of them have in common: these are only looked at, and
    /// `shared` outlives this. They are regular files, whatever their names lead to: a pipe that nobody writes to would keep all
    /// the others waiting, and a device has no end.
    explicit Inputs(const Inputs* shared) : m_shared(shared) {}
    Inputs(const Inputs&) = delete;
    Inputs& operator=(const Inputs&) = delete;

    /// A stream over a file of any size. `progress` is told how far reading has come and must outlive the stream.
    /// \throws Failure: there is no such file, standard input was taken already, an output
    /// replaces the file, or it is no regular file and one of many
    Norvane::MediaIn open(const std::string& path, Progress* progress = nullptr);
    /// All bytes of a file of at most 256 MiB, wiped with the last copy when they are secret. \throws Failure
    Norvane::Buffer readAll(const std::string& path, bool secret = false);
    /// Tells how a stream begins, and answers a stream that still delivers all of it. The first is not to be used
    /// again.
    static Norvane::MediaIn lookAhead(Norvane::MediaIn& in, unsigned int length, Norvane::Buffer& start);
    /// What is left of an open stream, with the same limit. \throws Failure
    static Norvane::Buffer readAll(Norvane::MediaIn& in, const std::string& path, bool secret = false);

    /// How an input begins, at most `length` bytes of it: what comes through a pipe is then delivered from there by the next
    /// `open`. \throws Failure as `open`
    Norvane::Buffer start(const std::string& path, unsigned int length);

    /// Counts a file that is read by other means as an input, if it exists. \throws Failure: an output replaces it
    void note(const std::string& path);
    /// Counts files as inputs that are so many that they are looked up when an output replaces a file, and not before.
    /// \param eachFile hands the path of each to the function that it is given
    /// \throws Failure: an output replaces one of them
    void noteLater(EachFile eachFile);
    /// Whether these are the inputs of one of several pieces of work.
    [[nodiscard]] bool areOfOneOfMany() const noexcept { return m_shared != nullptr; }
    /// Whether a file is an input.
    [[nodiscard]] bool hold(const FileIdentity& file);
    /// An output begins or ends to stand for a file that it replaces.
    void beginReplacing(const FileIdentity& file) { m_replaced.insert(file); }
    void endReplacing(const FileIdentity& file) { m_replaced.erase(file); }

    /// Where an output is to appear: its folder, and its name there, under which there need not be a file.
    using Place = std::pair<FileIdentity, std::string>;
    /// Whether an output that is being written is to appear there.
    [[nodiscard]] bool isTaken(const Place& place) const { return m_taken.contains(place); }
    void beginWriting(const Place& place) { m_taken.insert(place); }
    void endWriting(const Place& place) { m_taken.erase(place); }

private:
    void note(const std::string& path, const FileIdentity& file);

    const Inputs* m_shared = nullptr;
    bool m_standardInputTaken = false;
    std::vector<EachFile> m_later;
    std::map<std::string, Norvane::MediaIn> m_begun; ///< of what can be read only once
    std::set<FileIdentity> m_read;
    std::set<FileIdentity> m_replaced;
    std::set<Place> m_taken;
};

} // namespace norvcrypt
