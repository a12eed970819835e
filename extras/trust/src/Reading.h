#pragma once

/// \file
/// What files and directories hold: certificates and lists, and what of it cannot be used.

#include <norvcmsg/FileDescriptor.h>
#include <norvcrypto-trust/TrustMaterial.h>

#include <ctime>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Norvane::Crypto::Trust::detail {

/// Something that cannot be read; the text is for people.
class Unreadable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The process lacks what every file needs: a load that goes on would lose anchors and lists that nothing is wrong with.
class Exhausted : public Unreadable {
public:
    using Unreadable::Unreadable;
};

/// What one file holds; it never changes, and snapshots share it.
struct FileContents {
    std::vector<NVX509::RefCertificate> certificates;
    std::vector<NVX509::RefCertificateRevocationList> lists;
    std::vector<std::string> problems;
};

/// A file that was read.
struct ReadFile {
    std::string path;
    std::shared_ptr<const FileContents> contents;
};

/// What a path led to.
struct ReadPath {
    std::vector<ReadFile> files;             ///< of a directory by name; one that has several names is read once
    std::vector<Material::Problem> problems; ///< of files that could not be read
};

/// The contents of files by what tells that they did not change.
class FileCache {
public:
    /// What was read before, or null. What is asked for stays for the next load.
    std::shared_ptr<const FileContents> find(const FileState& state);
    /// \param readAt when reading began: a file that was written in those seconds is read again next time, since a second
    ///               change might leave its times as they are
    void keep(const FileState& state, std::time_t readAt, std::shared_ptr<const FileContents> contents);
    /// Forgets what was neither asked for nor kept since the last call.
    void forgetUnused();

private:
    std::map<FileState, std::shared_ptr<const FileContents>> m_used;
    std::map<FileState, std::shared_ptr<const FileContents>> m_before;
};

enum class Expected : int { fileOrDirectory, directory };

/// Reads what is there. \throws Unreadable: it cannot be opened, or is something else
ReadPath readPath(const std::string& path, Expected expected, FileCache& cache);

/// What the bytes of a file hold.
FileContents contentsOf(const Buffer& bytes);

} // namespace Norvane::Crypto::Trust::detail
