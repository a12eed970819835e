#include "daemon/Process.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <iostream>
#include <malloc.h>
#include <pthread.h>
#include <pwd.h>
#include <stdexcept>
#include <string_view>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>

namespace norvmilter {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isInstrumented = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool isInstrumented = true;
#else
constexpr bool isInstrumented = false;
#endif
#else
constexpr bool isInstrumented = false;
#endif

[[noreturn]] void failed(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Waits for the daemon; what it told other than "ready" is the reason why it did not start.
[[noreturn]] void waitForStart(const Descriptor& told) {
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t got = 0; (got = ::read(told.get(), piece.data(), piece.size())) > 0 || (got < 0 && errno == EINTR);) {
        if (got > 0)
            text.append(piece.data(), static_cast<std::size_t>(got));
        if (text == "ready")
            ::_exit(0);
    }
    std::cerr << "norvcrypt-milter: " << (text.empty() ? "did not start" : text) << std::endl;
    ::_exit(2);
}

} // namespace

User userNamed(const std::string& name) {
    // cppcheck-suppress getpwnamCalled ; asked once, before there are threads
    const passwd* found = ::getpwnam(name.c_str());
    if (found == nullptr)
        throw std::runtime_error("there is no user \"" + name + '"');
    return {name, found->pw_uid, found->pw_gid};
}

void become(const User& user) {
    if (::geteuid() != user.user || ::getegid() != user.group) {
        if (::initgroups(user.name.c_str(), user.group) != 0 || ::setresgid(user.group, user.group, user.group) != 0 ||
            ::setresuid(user.user, user.user, user.user) != 0)
            failed(("cannot become the user " + user.name).c_str());
    }
    if (user.user != 0 && ::setuid(0) == 0)
        throw std::runtime_error("the privileges of root did not go");
}

Descriptor goToBackground() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        failed("pipe");
    Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child < 0)
        failed("fork");
    if (child > 0) {
        writing.close();
        ::waitpid(child, nullptr, 0);
        waitForStart(reading);
    }
    // A session without a terminal, and no leader of it that could get one again.
    if (::setsid() < 0)
        failed("setsid");
    const pid_t grandchild = ::fork();
    if (grandchild < 0)
        failed("fork");
    if (grandchild > 0)
        ::_exit(0);
    if (::chdir("/") != 0)
        failed("chdir");
    const Descriptor nothing(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (!nothing || ::dup2(nothing.get(), standard) < 0)
            failed("/dev/null");
    }
    return writing;
}

void confine(std::uint64_t memoryBytes) {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    // Sanitizers need a debugger's access and terabytes of addresses.
    if (isInstrumented)
        return;
    ::prctl(PR_SET_DUMPABLE, 0);
    // A connection costs a thread: its stack counts as data when it is made.
    constexpr int arenas = 4;
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) == 0) {
        ::pthread_attr_setstacksize(&attributes, bytesOfStack);
        ::pthread_setattr_default_np(&attributes);
        ::pthread_attr_destroy(&attributes);
    }
    ::mallopt(M_ARENA_MAX, arenas);
    if (memoryBytes != 0) {
        const rlimit most{memoryBytes, memoryBytes};
        ::setrlimit(RLIMIT_DATA, &most);
    }
}

} // namespace norvmilter
