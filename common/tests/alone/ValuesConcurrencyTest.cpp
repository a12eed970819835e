// Meant for the thread sanitizer: values that several threads read at once, copies of them included.
#include <norvcmsg/Buffer.h>
#include <norvcmsg/EmailAddress.h>
#include <norvcmsg/IPAddress.h>
#include <norvcmsg/SocketAddress.h>
#include <norvcmsg/StringPattern.h>
#include <norvcmsg/Uri.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace Norvane;

TEST(ValuesConcurrency, OneValueIsReadFromEightThreads) {
    const StringPattern pattern("*@example.?rg");
    const EmailAddress address = EmailAddress::rfc5321Parse("anna@example.org", true);
    const std::string text = "http://example.org:8080/list.crl?x=1";
    const Uri uri(text.data(), static_cast<unsigned int>(text.size()));
    const IPAddress ip("192.0.2.1");
    const SocketAddress socket("192.0.2.1:465");
    const Buffer buffer("some bytes", 10, false);
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            for (int turn = 0; turn < 100; ++turn) {
                const EmailAddress copy = address;
                const Buffer other = buffer;
                const Uri copiedUri = uri;
                const bool same = pattern.matches(copy.address()) && copy.localPart() == "anna" &&
                                  copiedUri.host() == "example.org" && ip.asString() == "192.0.2.1" &&
                                  socket.port() == 465 && other == buffer;
                good += same ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(good, 800);
}
