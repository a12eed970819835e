#pragma once

// A file tree of the test's own, for what reads fixed paths: in a private mount namespace, over a file system in memory,
// so that nothing appears on the machine and two tests do not meet.

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace norvtest {

namespace privateroot {

namespace fs = std::filesystem;

inline void write(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

/// A mount namespace; for who is not root, in a user namespace.
inline bool unshareMounts() {
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWNS) == 0) {
        return true;
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return false;
    }
    write("/proc/self/setgroups", "deny");
    write("/proc/self/uid_map", "0 " + user + " 1");
    write("/proc/self/gid_map", "0 " + group + " 1");
    return true;
}

inline bool bind(const fs::path& from, const fs::path& to) {
    std::error_code ignored;
    fs::create_directories(to, ignored);
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

/// Puts the machine's own folders into the new tree, but for those in which the test writes.
inline bool borrow(const fs::path& tree) {
    for (const auto& entry : fs::directory_iterator("/")) {
        const fs::path name = entry.path().filename();
        if (name == "etc" || name == "migadmin" || tree == entry.path()) {
            continue;
        }
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), tree / name);
        } else if (entry.is_directory() && !bind(entry.path(), tree / name)) {
            return false;
        }
    }
    return bind("/etc/ssl", tree / "etc/ssl"); // OpenSSL's configuration
}

} // namespace privateroot

/// Moves the calling process into such a tree: the machine's, with an /etc that holds OpenSSL's configuration alone and
/// without a /migadmin. False where the machine does not allow it.
inline bool enterPrivateRoot() {
    const std::string tree = std::filesystem::is_directory("/mnt") ? "/mnt" : "/media";
    return privateroot::unshareMounts() && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", tree.c_str(), "tmpfs", 0, nullptr) == 0 && privateroot::borrow(tree) &&
           chroot(tree.c_str()) == 0 && chdir("/") == 0;
}

/// Whether a child process gets there.
inline bool privateRootIsAllowed() {
    const pid_t child = fork();
    if (child == 0) {
        _exit(enterPrivateRoot() ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Runs `body` in a child process with such a tree; its expectations count.
template <class Body> void inPrivateRoot(Body body) {
    EXPECT_EXIT(
        {
            if (!enterPrivateRoot()) {
                std::exit(77);
            }
            body();
            std::exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

/// Writes a file and the folders above it.
inline void put(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

} // namespace norvtest
