#include "files/Output.h"
#include "base/Failure.h"
#include "files/Interrupts.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace norvcrypt {

namespace {

/// 0, or the errno of the failure.
int writeAll(int descriptor, const char* bytes, std::size_t length) {
    while (length > 0) {
        const ssize_t count = ::write(descriptor, bytes, length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        bytes += count;
        length -= static_cast<std::size_t>(count);
    }
    return 0;
}

/// Asked once: it is told by setting another one, which the other threads would see.
mode_t creationMask() {
    static const mode_t mask = [] {
        const mode_t before = umask(0);
        umask(before);
        return before;
    }();
    return mask;
}

/// Makes a renaming durable; directories of some file systems cannot be synchronised, which is no failure.
void synchronizeDirectory(const std::string& directory) {
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    static_cast<void>(fsync(descriptor));
    close(descriptor);
}

class OutputStreamImpl : public Norvane::MediaOutImpl {
public:
    explicit OutputStreamImpl(OutputFile& file) : m_file(file) {}

    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override { m_file.write(data, length); }

private:
    OutputFile& m_file;
};

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

/// A short name of its own, to be completed: the target's may be as long as a name can be.
std::string temporaryName(const std::string& target) {
    return directoryOf(target) + "/.norvcrypt.XXXXXX";
}

using RealPath = std::unique_ptr<char, decltype(&std::free)>;

/// Without links; null for what has no name of its own, such as the pipe that /dev/stdout leads to.
RealPath realPathOf(const std::string& path) {
    return {realpath(path.c_str(), nullptr), std::free};
}

/// What the kernel has for an open file, with a name or without.
std::string linkOf(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

} // namespace

void prepareOutput() {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN)); // a file that becomes too large is a failure to write it
    prepareInterrupts();
    // A closed standard stream is opened the wrong way round: using it then fails instead of hitting a file of ours.
    for (const auto& [descriptor, mode] :
         {std::pair{STDIN_FILENO, O_WRONLY}, std::pair{STDOUT_FILENO, O_RDONLY}, std::pair{STDERR_FILENO, O_RDONLY}})
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", mode) != descriptor)
            std::_Exit(static_cast<int>(Exit::failed));
}

void TextOutput::line(std::string_view text) {
    m_pending += text;
    m_pending += '\n';
}

void TextOutput::text(std::string_view text) {
    m_pending += text;
}

void TextOutput::flush() {
    const std::string pending = std::exchange(m_pending, {});
    if (const int error = writeAll(STDOUT_FILENO, pending.data(), pending.size()))
        throw Failure("cannot write standard output", error);
}

OutputFile::OutputFile(std::string path, Inputs& inputs, Access access, Existing existing)
    : m_name(std::move(path)),
      m_target(m_name),
      m_inputs(&inputs),
      m_existing(existing) {
    if (m_name == "-") {
        m_name = "standard output";
        m_descriptor = STDOUT_FILENO;
        checkStandardOutput();
        return;
    }
    struct stat status {};
    const bool exists = stat(m_name.c_str(), &status) == 0;
    // Nor does a file take the place of a link that leads nowhere.
    if (const int error = errno; !exists && (error != ENOENT || lstat(m_name.c_str(), &status) == 0))
        fail(error);
    if (exists && !S_ISREG(status.st_mode)) {
        if (inputs.areOfOneOfMany())
            throw Failure("cannot write " + m_name + ": " + notAFile);
        if (access == Access::owner && S_ISFIFO(status.st_mode) && status.st_uid != geteuid() && realPathOf(m_name))
            refuseOfAnotherUser();
        m_descriptor = open(m_name.c_str(), O_WRONLY | O_CLOEXEC);
        if (m_descriptor < 0)
            fail(errno);
        return;
    }
    if (exists)
        checkExisting(status, access);
    checkPlace();
    m_mode = access == Access::owner ? 0600U : exists ? status.st_mode & 0777U : 0666U & ~creationMask();
    openUnnamed();
    if (!m_unnamed)
        openTemporary();
    if (m_replaced)
        m_inputs->beginReplacing(*m_replaced);
    m_inputs->beginWriting(*m_place);
}

/// What is read and written behind its end at the same time would never end.
void OutputFile::checkStandardOutput() {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    const FileIdentity file(status);
    if (m_inputs->hold(file))
        throw Failure("cannot write standard output: it is an input too");
    m_replaced = file;
    m_inputs->beginReplacing(file);
}

void OutputFile::checkExisting(const struct stat& status, Access access) {
    const FileIdentity file(status);
    if (m_inputs->hold(file))
        throw Failure("cannot write " + m_name + ": it is an input too, which would be lost");
    if (m_existing == Existing::refused)
        refuseExisting();
    if (access == Access::owner && status.st_uid != geteuid())
        refuseOfAnotherUser();
    // The file behind a link is replaced, not the link.
    const RealPath real = realPathOf(m_name);
    if (!real || ::access(real.get(), W_OK) != 0)
        fail(errno);
    m_target = real.get();
    m_replaced = file;
    if (access == Access::everyone) {
        m_owner = status.st_uid;
        m_group = status.st_gid;
    }
}

/// Of two outputs of one name the second would take the place of the first, which may be a new key.
void OutputFile::checkPlace() {
    struct stat folder {};
    if (stat(directoryOf(m_target).c_str(), &folder) != 0)
        fail(errno);
    const Inputs::Place place(FileIdentity(folder), m_target.substr(m_target.rfind('/') + 1));
    if (m_inputs->isTaken(place))
        throw Failure("cannot write " + m_name + ": it is another output, too, which would be lost");
    m_place = place;
}

/// A file without a name goes with the process, however that ends.
void OutputFile::openUnnamed() {
    m_descriptor = open(directoryOf(m_target).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (m_descriptor < 0)
        return;
    // It gets its name through /proc, which not every container has.
    m_unnamed = temporaryName(m_target).size() < PATH_MAX && ::access(linkOf(m_descriptor).c_str(), F_OK) == 0;
    if (!m_unnamed)
        close(std::exchange(m_descriptor, -1));
}

void OutputFile::openTemporary() {
    std::string name = temporaryName(m_target);
    if (name.size() >= PATH_MAX)
        fail(ENAMETOOLONG);
    const Uninterrupted hold;
    m_descriptor = mkostemp(name.data(), O_CLOEXEC);
    if (m_descriptor < 0)
        fail(errno);
    keepTemporary(name);
}

OutputFile::~OutputFile() {
    if (m_replaced)
        m_inputs->endReplacing(*m_replaced);
    if (m_place)
        m_inputs->endWriting(*m_place);
    const Uninterrupted hold;
    if (!m_temporary.empty()) {
        static_cast<void>(unlink(m_temporary.c_str()));
        loseTemporary();
    }
    if (m_descriptor > STDERR_FILENO)
        close(m_descriptor);
}

void OutputFile::write(const void* bytes, std::size_t length) {
    if (const int error = writeAll(m_descriptor, static_cast<const char*>(bytes), length))
        fail(error);
}

void OutputFile::restart() {
    if (isHeldBack() && (ftruncate(m_descriptor, 0) != 0 || lseek(m_descriptor, 0, SEEK_SET) != 0))
        fail(errno);
}

void OutputFile::settle() {
    if (!isHeldBack())
        return;
    // A file that is replaced stays its owner's, as far as we may give it away; a secret is ours.
    if (m_owner != static_cast<uid_t>(-1))
        static_cast<void>(fchown(m_descriptor, m_owner, m_group) == 0 ||
                          fchown(m_descriptor, static_cast<uid_t>(-1), m_group) == 0);
    if (fchmod(m_descriptor, m_mode) != 0 || fsync(m_descriptor) != 0)
        fail(errno);
}

void OutputFile::commit() {
    settle();
    if (!isHeldBack())
        return;
    {
        const Uninterrupted hold;
        takeName();
    }
    synchronizeDirectory(directoryOf(m_target));
}

/// Only a name that is free can be given to a file without one; otherwise it gets one to be renamed from.
void OutputFile::takeName() {
    if (m_unnamed) {
        if (!m_replaced &&
            linkat(AT_FDCWD, linkOf(m_descriptor).c_str(), AT_FDCWD, m_target.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            m_unnamed = false;
            return;
        }
        if (!m_replaced && errno == EEXIST && m_existing == Existing::refused)
            refuseExisting();
        nameTemporary();
    }
    const unsigned int flags = m_existing == Existing::refused ? RENAME_NOREPLACE : 0;
    int result = renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_target.c_str(), flags);
    if (result != 0 && errno == EINVAL && flags != 0) // the file system cannot promise that; nothing was there before
        result = rename(m_temporary.c_str(), m_target.c_str());
    if (result != 0 && errno == EEXIST)
        refuseExisting();
    if (result != 0)
        fail(errno);
    loseTemporary();
}

void OutputFile::nameTemporary() {
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = temporaryName(m_target);
        for (std::size_t at = name.size() - 6; at < name.size(); ++at)
            name[at] = static_cast<char>('a' + random() % 26);
        if (linkat(AT_FDCWD, linkOf(m_descriptor).c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            m_unnamed = false;
            keepTemporary(name);
            return;
        }
        if (errno != EEXIST)
            break;
    }
    fail(errno);
}

void OutputFile::keepTemporary(const std::string& name) {
    const std::optional<std::size_t> slot = rememberTemporary(name);
    if (!slot) {
        static_cast<void>(unlink(name.c_str()));
        fail(EMFILE);
    }
    m_slot = *slot;
    m_temporary = name;
}

void OutputFile::loseTemporary() {
    m_temporary.clear();
    forgetTemporary(m_slot);
}

void OutputFile::refuseExisting() const {
    throw Failure("will not replace " + m_name + ", which exists already: give --force to have it replaced");
}

void OutputFile::refuseOfAnotherUser() const {
    throw Failure("cannot write " + m_name + ": it belongs to another user, and a secret is to be written");
}

void OutputFile::fail(int error) const {
    throw Failure("cannot write " + m_name, error);
}

OutputStream::OutputStream(OutputFile& file)
    : MediaOut(Norvane::makeReference<OutputStreamImpl, Norvane::MediaOutImpl>(file)) {}

void writeFile(const std::string& path, Inputs& inputs, std::string_view content, OutputFile::Access access,
               OutputFile::Existing existing) {
    OutputFile file(path, inputs, access, existing);
    file.write(content.data(), content.size());
    file.commit();
}

} // namespace norvcrypt
