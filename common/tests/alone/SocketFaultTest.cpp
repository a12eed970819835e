// Failures of the system that no peer provokes at will: this executable's calls are the ones that the library makes.

#include <norvcmsg/Socket.h>

#include "../Sockets.h"
#include "support/Interpose.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

/// What the next calls of one function answer, one error each, before calls go well again.
std::map<std::string, std::vector<int>> s_errors;
std::size_t s_mostAtOnce = 0; ///< how many bytes one call moves at most; 0 for any number
int s_falseAlarms = 0;        ///< how many polls tell what is not so

/// True when the call has to fail; errno is set.
bool fails(const char* function) {
    const auto found = s_errors.find(function);
    if (found == s_errors.end() || found->second.empty()) {
        return false;
    }
    errno = found->second.front();
    found->second.erase(found->second.begin());
    return true;
}

std::size_t limited(std::size_t length) {
    return s_mostAtOnce == 0 ? length : std::min(length, s_mostAtOnce);
}

} // namespace

extern "C" int socket(int family, int type, int protocol) noexcept {
    return fails("socket") ? -1 : norvtest::next<&::socket>("socket")(family, type, protocol);
}

extern "C" int connect(int descriptor, const sockaddr* address, socklen_t length) {
    return fails("connect") ? -1 : norvtest::next<&::connect>("connect")(descriptor, address, length);
}

extern "C" int accept4(int descriptor, sockaddr* address, socklen_t* length, int flags) {
    return fails("accept4") ? -1 : norvtest::next<&::accept4>("accept4")(descriptor, address, length, flags);
}

extern "C" ssize_t send(int descriptor, const void* data, std::size_t length, int flags) {
    EXPECT_NE(flags & MSG_NOSIGNAL, 0);
    return fails("send") ? -1 : norvtest::next<&::send>("send")(descriptor, data, limited(length), flags);
}

extern "C" ssize_t recv(int descriptor, void* data, std::size_t length, int flags) {
    return fails("recv") ? -1 : norvtest::next<&::recv>("recv")(descriptor, data, limited(length), flags);
}

extern "C" int poll(pollfd* polled, nfds_t count, int milliseconds) {
    if (s_falseAlarms > 0) {
        --s_falseAlarms;
        return 1;
    }
    return fails("poll") ? -1 : norvtest::next<&::poll>("poll")(polled, count, milliseconds);
}

extern "C" int setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) noexcept {
    return fails("setsockopt") ? -1
                               : norvtest::next<&::setsockopt>("setsockopt")(descriptor, level, option, value, length);
}

extern "C" int listen(int descriptor, int backlog) noexcept {
    return fails("listen") ? -1 : norvtest::next<&::listen>("listen")(descriptor, backlog);
}

extern "C" int shutdown(int descriptor, int how) noexcept {
    return fails("shutdown") ? -1 : norvtest::next<&::shutdown>("shutdown")(descriptor, how);
}

extern "C" int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept {
    return fails("getsockname") ? -1 : norvtest::next<&::getsockname>("getsockname")(descriptor, address, length);
}

extern "C" int getsockopt(int descriptor, int level, int option, void* value, socklen_t* length) noexcept {
    return fails("getsockopt") ? -1
                               : norvtest::next<&::getsockopt>("getsockopt")(descriptor, level, option, value, length);
}

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return fails("ioctl") ? -1 : norvtest::next<&::ioctl>("ioctl")(descriptor, request, argument);
}

namespace {

using namespace sockets;
using Norvane::Socket;
using Norvane::SocketAddress;

std::ptrdiff_t openDescriptors() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class SocketFaults : public testing::Test {
protected:
    void SetUp() override { m_descriptors = openDescriptors(); }
    void TearDown() override {
        for (const auto& [function, errors] : s_errors) {
            EXPECT_TRUE(errors.empty()) << function << " was not called often enough";
        }
        s_errors.clear();
        s_mostAtOnce = 0;
        s_falseAlarms = 0;
        EXPECT_EQ(openDescriptors(), m_descriptors) << "no descriptor is left";
    }

private:
    std::ptrdiff_t m_descriptors = 0;
};

TEST_F(SocketFaults, InterruptionsAndShortCountsLoseNoByte) {
    Pair pair;
    const auto text = pattern(30'000);
    s_mostAtOnce = 1000;
    s_errors = {{"send", {EINTR, EINTR}}, {"recv", {EINTR}}};
    EXPECT_EQ(send(pair.client, text), 30'000);
    pair.client.shutdown(false, true);
    EXPECT_EQ(receiveAll(pair.server), text);
}

TEST_F(SocketFaults, InterruptedWaitsGoOn) {
    Pair pair;
    pair.server.timeLimit(60);
    s_errors = {{"poll", {EINTR, EINTR, EINTR}}};
    EXPECT_EQ(failureOf([&] { receive(pair.server); }), "SocketImpl::receive (4): Connection timed out (110)");
}

TEST_F(SocketFaults, AWaitThatTheSystemRefusesIsAFailure) {
    Pair pair;
    s_errors = {{"poll", {ENOMEM}}};
    EXPECT_EQ(failureOf([&] { receive(pair.server); }), "SocketImpl::receive (4): Cannot allocate memory (12)");
}

TEST_F(SocketFaults, AFalseAlarmIsWaitedOut) {
    Socket listener = listening();
    s_falseAlarms = 3;
    listener.timeLimit(20);
    EXPECT_EQ(failureOf([&] { return listener.accept(); }), "SocketImpl::accept (4): Connection timed out (110)");
    Pair pair;
    s_falseAlarms = 3;
    pair.client.timeLimit(20);
    EXPECT_EQ(failureOf([&] { receive(pair.client); }), "SocketImpl::receive (4): Connection timed out (110)");
}

TEST_F(SocketFaults, ASendThatHasToWaitGoesOnWhereItWas) {
    Pair pair;
    s_mostAtOnce = 10;
    s_errors = {{"send", {EAGAIN, EINTR, EAGAIN}}};
    EXPECT_EQ(send(pair.client, pattern(25)), 25);
    s_mostAtOnce = 0;
    EXPECT_EQ(receive(pair.server), pattern(25));
}

TEST_F(SocketFaults, ConnectionsThatFailBeforeTheyAreTakenArePassedOver) {
    Socket listener = listening();
    Socket client(true);
    client.connect(listener.localAddress());
    s_errors = {{"accept4",
                 {ECONNABORTED, EINTR, EPROTO, ENETDOWN, ENOPROTOOPT, EHOSTDOWN, ENONET, EHOSTUNREACH, ENETUNREACH}}};
    EXPECT_EQ(listener.accept().remoteAddress(), client.localAddress());
}

TEST_F(SocketFaults, AConnectionIsNotLostWhenDescriptorsRunOut) {
    Socket listener = listening();
    Socket client(true);
    client.connect(listener.localAddress());
    s_errors = {{"accept4", {EMFILE, ENFILE, ENOBUFS, ENOMEM}}};
    EXPECT_EQ(failureOf([&] { return listener.accept(); }), "SocketImpl::accept (4): Too many open files (24)");
    EXPECT_EQ(failureOf([&] { return listener.accept(); }),
              "SocketImpl::accept (4): Too many open files in system (23)");
    EXPECT_EQ(failureOf([&] { return listener.accept(); }), "SocketImpl::accept (4): No buffer space available (105)");
    EXPECT_EQ(failureOf([&] { return listener.accept(); }), "SocketImpl::accept (4): Cannot allocate memory (12)");
    EXPECT_EQ(listener.accept().remoteAddress(), client.localAddress());
}

TEST_F(SocketFaults, NoDescriptorIsLeftForAClient) {
    s_errors = {{"socket", {EMFILE}}};
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(SocketAddress("127.0.0.1:25")); }),
              "SocketImpl::connect (4): Too many open files (24)");
}

class Unreachable : public SocketFaults, public testing::WithParamInterface<std::pair<int, const char*>> {};

TEST_P(Unreachable, IsToldWithTheAddress) {
    const auto& [error, reason] = GetParam();
    s_errors = {{"connect", {error}}};
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(SocketAddress("192.0.2.1:25")); }),
              "SocketImpl::connect (4): 192.0.2.1:25: " + std::string(reason) + " (" + std::to_string(error) + ")");
    EXPECT_EQ(client.descriptor(), -1);
}

INSTANTIATE_TEST_SUITE_P(Errors, Unreachable,
                         testing::Values(std::pair(ENETUNREACH, "Network is unreachable"),
                                         std::pair(EHOSTUNREACH, "No route to host"),
                                         std::pair(EADDRNOTAVAIL, "Cannot assign requested address"),
                                         std::pair(EACCES, "Permission denied")));

TEST_F(SocketFaults, AnInterruptedConnectIsWaitedFor) {
    // The system goes on with a connect that a signal interrupted; here nothing was begun, so there is nothing to wait
    // for, and that is told instead of a connection.
    s_errors = {{"connect", {EINTR}}};
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(SocketAddress("127.0.0.1:25")); }),
              "SocketImpl::connect (4): 127.0.0.1:25: Software caused connection abort (103)");
}

TEST_F(SocketFaults, AConnectWhoseResultCannotBeReadIsAFailure) {
    s_errors = {{"connect", {EINPROGRESS}}, {"getsockopt", {ENOBUFS}}};
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(SocketAddress("127.0.0.1:25")); }),
              "SocketImpl::connect (4): 127.0.0.1:25: No buffer space available (105)");
}

TEST_F(SocketFaults, ASocketThatCannotBeSetUpIsClosedAgain) {
    Socket socket(true);
    s_errors = {{"setsockopt", {ENOPROTOOPT}}};
    EXPECT_EQ(failureOf([&] { socket.bind(v4Any); }), "SocketImpl::bind (4): Protocol not available (92)");
    EXPECT_EQ(socket.descriptor(), -1);
    s_errors = {{"listen", {EADDRINUSE}}};
    EXPECT_EQ(failureOf([&] { socket.listen(); }), "SocketImpl::listen (4): Address already in use (98)");
    s_errors = {{"ioctl", {EIO}}};
    Socket client(true);
    EXPECT_EQ(failureOf([&] { client.connect(SocketAddress("127.0.0.1:25")); }),
              "SocketImpl::connect (4): 127.0.0.1:25: Input/output error (5)");
    EXPECT_EQ(client.descriptor(), -1);
}

TEST_F(SocketFaults, OtherRefusalsOfTheSystemAreTold) {
    Pair pair;
    s_errors = {{"shutdown", {EIO}}, {"getsockname", {ENOBUFS}}, {"ioctl", {EIO}}, {"setsockopt", {EIO}}};
    EXPECT_EQ(failureOf([&] { pair.client.shutdown(); }), "SocketImpl::shutdown (4): Input/output error (5)");
    EXPECT_EQ(failureOf([&] { return pair.client.localAddress(); }),
              "SocketImpl::localAddress (4): No buffer space available (105)");
    EXPECT_EQ(failureOf([&] { pair.client.blocking(false); }), "SocketImpl::blocking (4): Input/output error (5)");
    EXPECT_EQ(failureOf([&] { pair.client.noDelay(true); }), "SocketImpl::noDelay (4): Input/output error (5)");
}

} // namespace
