#pragma once

#include "files/Input.h"

#include <norvcmsg/Media.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace norvcrypt {

/// Prepares the process for output that may fail: no death by SIGPIPE or SIGXFSZ, no file that takes the place of a closed
/// standard stream, and no temporary file left behind by an interrupt. Call it first in main.
void prepareOutput();

/// Text on standard output. What was not flushed is not written.
class TextOutput {
public:
    /// Adds the text and a line feed; the caller has escaped what came from elsewhere.
    void line(std::string_view text);
    void text(std::string_view text);
    /// \throws Failure: standard output takes no more
    void flush();

private:
    std::string m_pending;
};

/// A file that appears under its name complete or not at all: it has no name until then, or a temporary one where the
/// file system knows no files without. "-" is standard output, and what is no regular file (a device, a pipe) is written
/// directly; of one of several pieces of work it is refused.
class OutputFile {
public:
    /// owner: for secrets; mode 0600, ours, and never in the place of another user's file, or into another user's pipe
    enum class Access { everyone, owner };
    /// What happens to a regular file that is there already.
    enum class Existing { replaced, refused };

    /// \throws Failure: the place cannot be written to, is that of one of the inputs (which must outlive this) or of another
    /// output beside them, or there is a file that is not to be replaced
    OutputFile(std::string path, Inputs& inputs, Access access = Access::everyone,
               Existing existing = Existing::replaced);
    /// Takes away what was not committed.
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    /// \throws Failure
    void write(const void* bytes, std::size_t length);
    /// Whether what is written is seen by nobody before `commit`.
    [[nodiscard]] bool isHeldBack() const noexcept { return m_unnamed || !m_temporary.empty(); }
    /// Takes back all that was written, where that is held back. \throws Failure
    void restart();
    /// Makes what was written durable, so that `commit` has little left that can fail: for files that belong together.
    /// \throws Failure
    void settle();
    /// Makes the file durable and gives it its name. \throws Failure
    void commit();

private:
    void checkStandardOutput();
    void checkExisting(const struct stat& status, Access access);
    void checkPlace();
    void openUnnamed();
    void openTemporary();
    void nameTemporary();
    void takeName();
    void keepTemporary(const std::string& name);
    void loseTemporary();
    [[noreturn]] void fail(int error) const;
    [[noreturn]] void refuseExisting() const;
    [[noreturn]] void refuseOfAnotherUser() const;

    std::string m_name; ///< as the caller gave it, for messages
    std::string m_target;
    Inputs* m_inputs;
    Existing m_existing;
    std::optional<FileIdentity> m_replaced;
    std::optional<Inputs::Place> m_place;
    bool m_unnamed = false;
    std::string m_temporary; ///< its name, while it has one
    std::size_t m_slot = 0;  ///< of the temporary file, among those that an interrupt removes
    int m_descriptor = -1;
    unsigned int m_mode = 0;
    uid_t m_owner = static_cast<uid_t>(-1); ///< of the file that is replaced
    gid_t m_group = static_cast<gid_t>(-1);
};

/// A stream into a file, which must outlive it; ending it does not commit the file.
class OutputStream : public Norvane::MediaOut {
public:
    explicit OutputStream(OutputFile& file);
};

/// Writes a whole file. \throws Failure
void writeFile(const std::string& path, Inputs& inputs, std::string_view content,
               OutputFile::Access access = OutputFile::Access::everyone,
               OutputFile::Existing existing = OutputFile::Existing::replaced);

} // namespace norvcrypt
