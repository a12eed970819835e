#pragma once

/// \file
/// Folders and files of the store, opened with suspicion: what is looked at is what was opened, nothing blocks, and no
/// link is followed.

#include <norvcmsg/Buffer.h>
#include <norvcmsg/FileDescriptor.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Norvane::Crypto::NVX509::keystore {

/// Why something of the store is not used; the text is for people.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The process lacks what every file needs: whoever goes on would lose identities that nothing is wrong with.
class Exhausted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The directory of the store, which may be reached through a link. \throws Refusal, Exhausted
FileDescriptor openStore(const std::string& path);

/// The names in the directory that do not begin with a dot, in the order of their bytes. \throws Refusal, Exhausted
std::vector<std::string> foldersOf(const FileDescriptor& store);

/// What a folder in an open one is at this moment, without opening it. \throws Refusal: it is none that may be used; Exhausted
FileState folderState(const FileDescriptor& parent, const std::string& name);

/// A folder in an open one. \throws Refusal, Exhausted
FileDescriptor openFolder(const FileDescriptor& parent, const std::string& name);

FileState stateOf(const FileDescriptor& file);

/// What a name leads to at this moment, a link being one; nothing when there is no such name or it cannot be examined.
std::optional<FileState> stateAt(const FileDescriptor& folder, const std::string& name);

/// False when there certainly is nothing of that name: true when it cannot be examined, too.
bool mayExist(const FileDescriptor& folder, const std::string& name);

enum class Content : int { open, secret };

/// All of a file below an open folder, in a buffer that is wiped when the content is secret; nothing when there is no such
/// file. A link is refused as the last part of the name alone: where there are others, the caller compares what the folder is.
/// \param state what the file was when it was opened; left alone when it could not be opened
/// \throws Refusal, Exhausted
std::optional<Buffer> readFile(const FileDescriptor& folder, const std::string& name, Content content,
                               std::optional<FileState>& state);

} // namespace Norvane::Crypto::NVX509::keystore
