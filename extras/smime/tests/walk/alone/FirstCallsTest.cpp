// What needs GMime starts it, whichever comes first in a process: GLib is told to end those in which it is used before.
#include "mime/Gmime.h"
#include "mime/Values.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace Norvane::Crypto::SMime::mime;

Header headerOf(const std::string& text) {
    Header header;
    MemoryOctets octets(text + "\r\n\r\n");
    EXPECT_EQ(readHeader(octets, {}, header), HeaderEnd::complete);
    return header;
}

/// Runs it in a process of its own, which ends well when it comes to what is expected without a word of GLib's.
template <class Work> void expectFirst(Work work, const std::string& expected) {
    EXPECT_EXIT(
        {
            g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
            std::_Exit(work() == expected ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(FirstCalls, ReadAContentType) {
    expectFirst([] { return contentTypeOf(headerOf("Content-Type: text/html; name*=iso-8859-15''%A4")).name; },
                "\u20ac");
}

TEST(FirstCalls, ReadAContentDisposition) {
    expectFirst([] { return fileNameOf(headerOf("Content-Disposition: attachment; filename*=iso-8859-15''%A4"), {}); },
                "\u20ac");
}

TEST(FirstCalls, ReadAnAddress) {
    expectFirst(
        [] { return addressesOf(headerOf("From: =?iso-8859-15?q?=A4?= <a@b.example>"), "From").mailboxes.at(0); },
        "a@b.example");
}

TEST(FirstCalls, DecodeAText) {
    expectFirst([] { return decodedText("=?iso-8859-15?q?=A4?="); }, "\u20ac");
}

} // namespace
