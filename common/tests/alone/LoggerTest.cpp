#include "support/Grouping.h"

#include <norvcmsg/Logger.h>

#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

/// What reached syslog: this executable's functions are the ones that the library calls.
std::vector<std::string> s_syslog;
std::string s_ident;

} // namespace

extern "C" void openlog(const char* ident, int /*option*/, int /*facility*/) {
    s_ident = ident;
    s_syslog.push_back("open " + s_ident);
}

extern "C" void closelog() {
    s_syslog.emplace_back("close");
}

extern "C" void syslog(int priority, const char* format, ...) {
    char text[5000];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    s_syslog.push_back(std::to_string(LOG_PRI(priority)) + ' ' + text);
}

namespace {

using Norvane::Logger;
using Norvane::LogRecord;
using Norvane::LogSink;
using Norvane::RecordingLogSink;
using testing::HasSubstr;
using Fields = std::vector<std::string>;

Logger& logger() {
    return Logger::instance(false);
}

class Logging : public testing::Test {
protected:
    void SetUp() override {
        m_sink = std::make_shared<RecordingLogSink>();
        logger().sink(m_sink);
        logger().level(0);
    }
    void TearDown() override {
        logger().sink(nullptr);
        logger().level(0);
    }
    /// The fields of the only record so far.
    Fields fields() {
        const auto records = m_sink->records();
        m_sink->clear();
        EXPECT_EQ(records.size(), 1U);
        return records.empty() ? Fields{} : records.front().fields;
    }

    std::shared_ptr<RecordingLogSink> m_sink;
};

using LogFormat = Logging;
using LogSinks = Logging;

TEST_F(Logging, ThereIsOneLogger) {
    EXPECT_EQ(&Logger::instance(false), &Logger::instance(false));
    EXPECT_EQ(&Logger::instance(false), &Logger::instance(true));
}

TEST_F(Logging, TheFormattedMessageIsTheFifthOperation) {
    // As the C++ ABI of Linux keeps the place of a virtual operation; the first two are the destructor's.
    auto member = &Logger::message;
    long raw[2] = {};
    static_assert(sizeof member == sizeof raw);
    std::memcpy(raw, &member, sizeof raw);
    EXPECT_EQ((raw[0] - 1) / static_cast<long>(sizeof(void*)), 2 + 5 - 1);
}

TEST_F(Logging, ARecordHasEventLevelFormatAndFields) {
    logger().message(0x4000000, 0, "%d\x01%s", 7, "Time is before validity period.");
    const auto records = m_sink->records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].event, 0x4000000U);
    EXPECT_EQ(records[0].level, 0);
    EXPECT_EQ(records[0].format, "%d\x01%s");
    EXPECT_EQ(records[0].fields, (Fields{"7", "Time is before validity period."}));
}

TEST_F(Logging, EveryEventCodeIsKept) {
    logger().message(0xFFFFFFFF, 0, "%s", " ");
    logger().message(0, 0, "x");
    EXPECT_EQ(m_sink->records()[0].event, 0xFFFFFFFFU);
    EXPECT_EQ(m_sink->records()[1].event, 0U);
}

TEST_F(Logging, RecordsAboveTheLevelAreDropped) {
    EXPECT_EQ(logger().level(), 0);
    logger().message(1, 1, "%s", "dropped");
    EXPECT_TRUE(m_sink->records().empty());
    logger().level(2);
    EXPECT_EQ(logger().level(), 2);
    logger().message(1, 2, "%s", "kept");
    logger().message(1, 3, "%s", "dropped");
    logger().message(1, -5, "%s", "kept");
    ASSERT_EQ(m_sink->records().size(), 2U);
    EXPECT_EQ(m_sink->records()[0].level, 2);
    EXPECT_EQ(m_sink->records()[1].level, -5);
}

TEST_F(Logging, ClearForgets) {
    logger().message(1, 0, "x");
    m_sink->clear();
    EXPECT_TRUE(m_sink->records().empty());
}

TEST_F(LogFormat, AByte1InAnArgumentDoesNotSplitItsField) {
    logger().message(1, 0, "%s\x01%s",
                     "a\x01"
                     "b",
                     "c");
    EXPECT_EQ(fields(), (Fields{"a\x01"
                                "b",
                                "c"}));
    logger().message(1, 0, "%c\x01%c", 1, 'x');
    EXPECT_EQ(fields(), (Fields{"\x01", "x"}));
}

TEST_F(LogFormat, AFormatInAnArgumentIsNotOne) {
    logger().message(1, 0, "%s", "%n%s%d%%");
    EXPECT_EQ(fields(), Fields{"%n%s%d%%"});
}

TEST_F(LogFormat, FieldsMayBeEmpty) {
    const char* format = "\x01\x01%s\x01";
    logger().message(1, 0, format, "");
    EXPECT_EQ(fields(), (Fields{"", "", "", ""}));
    const char* empty = "";
    logger().message(1, 0, empty, 0);
    EXPECT_EQ(fields(), Fields{""});
}

TEST_F(LogFormat, AFieldMayHaveSeveralConversions) {
    logger().message(1, 0, "%s=%d%%\x01%u of %u", "load", 50, 1U, 2U);
    EXPECT_EQ(fields(), (Fields{"load=50%", "1 of 2"}));
}

TEST_F(LogFormat, IntegersOfAllLengths) {
    logger().message(1, 0, "%d %i %u %x %X %o", -1, -2, 3U, 0xABU, 0xABU, 8U);
    EXPECT_EQ(fields(), Fields{"-1 -2 3 ab AB 10"});
    // NOLINTBEGIN(clang-diagnostic-format): wider than they are printed
    logger().message(1, 0, "%hhd %hhu %hd %hu", -1, 255, -2, 65535);
    EXPECT_EQ(fields(), Fields{"-1 255 -2 65535"});
    logger().message(1, 0, "%hhd %hhu %hd %hu", 257, 257, 65537, 65537);
    EXPECT_EQ(fields(), Fields{"1 1 1 1"});
    // NOLINTEND(clang-diagnostic-format)
    logger().message(1, 0, "%ld %lu %lld %llu", INT64_MIN, UINT64_MAX, static_cast<long long>(INT64_MIN),
                     static_cast<unsigned long long>(UINT64_MAX));
    EXPECT_EQ(fields(), Fields{"-9223372036854775808 18446744073709551615 -9223372036854775808 18446744073709551615"});
    logger().message(1, 0, "%jd %ju %zd %zu %td", intmax_t{-1}, uintmax_t{1}, ssize_t{-2}, size_t{2}, ptrdiff_t{-3});
    EXPECT_EQ(fields(), Fields{"-1 1 -2 2 -3"});
    logger().message(1, 0, "%u %x %o", UINT32_MAX, UINT32_MAX, UINT32_MAX);
    EXPECT_EQ(fields(), Fields{"4294967295 ffffffff 37777777777"});
}

TEST_F(LogFormat, FlagsWidthAndPrecision) {
    logger().message(1, 0, "[%5d] [%-5d] [%05d] [%+d] [% d] [%#x] [%.3d] [%8.3d]", 42, 42, 42, 42, 42, 42U, 42, 42);
    EXPECT_EQ(fields(), Fields{"[   42] [42   ] [00042] [+42] [ 42] [0x2a] [042] [     042]"});
    logger().message(1, 0, "[%*d] [%-*d] [%*d] [%.*d]", 5, 42, 5, 42, -5, 42, 3, 42);
    EXPECT_EQ(fields(), Fields{"[   42] [42   ] [42   ] [042]"});
    logger().message(1, 0, "[%5s] [%-5s] [%.2s] [%5.1s] [%.*s] [%.s]", "abc", "abc", "abc", "abc", 1, "abc", "abc");
    EXPECT_EQ(fields(), Fields{"[  abc] [abc  ] [ab] [    a] [a] []"});
    logger().message(1, 0, "[%.*s] [%3c] [%-3c]", -1, "abc", 'x', 'y');
    EXPECT_EQ(fields(), Fields{"[abc] [  x] [y  ]"});
    logger().message(1, 0, "[%.0d] [%.0x] [%3.0u]", 0, 0U, 0U); // C prints no digit then
    EXPECT_EQ(fields(), Fields{"[] [] [   ]"});
}

TEST_F(LogFormat, FloatingPoint) {
    logger().message(1, 0, "%f %.2f %e %g %G %5.1f|%-6.1f|", 1.5, 2.345, 1.5, 0.0001, 1e-10, 1.25, 1.25);
    EXPECT_EQ(fields(), Fields{"1.500000 2.35 1.500000e+00 0.0001 1E-10   1.2|1.2   |"});
    logger().message(1, 0, "%Lf %a %F %E", 1.5L, 1.0, 2.0, 3.0);
    EXPECT_EQ(fields(), Fields{"1.500000 0x1p+0 2.000000 3.000000E+00"});
}

TEST_F(LogFormat, Pointers) {
    logger().message(1, 0, "%p", reinterpret_cast<void*>(0x1234)); // NOLINT(performance-no-int-to-ptr)
    EXPECT_EQ(fields(), Fields{"0x1234"});
}

TEST_F(LogFormat, ANullTextIsShownAsSuch) {
    const char* volatile null = nullptr;
    logger().message(1, 0, "%s\x01%.3s", null, null);
    EXPECT_EQ(fields(), (Fields{"(null)", "(nu"}));
}

TEST_F(LogFormat, APrecisionLimitsWhatIsRead) {
    const char unterminated[] = {'a', 'b', 'c'};
    logger().message(1, 0, "%.3s", unterminated);
    EXPECT_EQ(fields(), Fields{"abc"});
}

TEST_F(LogFormat, TheSystemsErrorIsTold) {
    const std::string format = "%m\x01%s"; // an extension of glibc's, which a literal would be warned of
    errno = ENOENT;
    logger().message(1, 0, format.c_str(), "x");
    EXPECT_EQ(fields(), (Fields{"No such file or directory", "x"}));
}

TEST_F(LogFormat, ErrnoIsLeftAlone) {
    errno = EPERM;
    logger().message(1, 0, "%s", "x");
    EXPECT_EQ(errno, EPERM);
}

TEST_F(LogSinks, WhatASinkDoesToErrnoIsUndone) {
    struct Failing : LogSink {
        void record(const LogRecord& /*record*/) override { errno = ENOSPC; }
    };
    logger().sink(std::make_shared<Failing>());
    errno = EPERM;
    logger().message(1, 0, "x");
    EXPECT_EQ(errno, EPERM);
}

TEST_F(LogFormat, ANullFormatIsEmpty) {
    const char* volatile null = nullptr;
    logger().message(1, 0, null, 0);
    EXPECT_EQ(fields(), Fields{""});
}

// Formats that the compiler would warn of, as a variable: the rest stands as it is, and no argument is touched.
TEST_F(LogFormat, AnythingElseStandsAsItIs) {
    int untouched = 7;
    for (const char* const format :
         {"a %n b %s", "a %ls", "a %lc", "a %1$s", "a %", "a %5", "a %y b", "a %.", "a %ll", "a %*"}) {
        logger().message(1, 0, format, &untouched);
        EXPECT_EQ(fields(), Fields{format});
        EXPECT_EQ(untouched, 7);
    }
}

TEST_F(LogFormat, LongTextsAreKeptWhole) {
    const std::string text(1'000'000, 'x');
    logger().message(1, 0, "%s", text.c_str());
    EXPECT_EQ(fields(), Fields{text});
}

TEST_F(LogSinks, TheLatestSinkGetsTheRecords) {
    auto second = std::make_shared<RecordingLogSink>();
    logger().message(1, 0, "first");
    logger().sink(second);
    logger().message(2, 0, "second");
    EXPECT_EQ(m_sink->records().size(), 1U);
    EXPECT_EQ(second->records().size(), 1U);
}

TEST_F(LogSinks, RenewingLeavesASinkOfTheCallersAlone) {
    Logger::instance(true).message(1, 0, "x");
    EXPECT_EQ(m_sink->records().size(), 1U);
}

TEST_F(LogSinks, WhatASinkThrowsIsSwallowed) {
    struct Throwing : LogSink {
        void record(const LogRecord& /*record*/) override { throw std::runtime_error("full"); }
    };
    logger().sink(std::make_shared<Throwing>());
    EXPECT_NO_THROW(logger().message(1, 0, "%s", "x"));
}

TEST_F(LogSinks, ASinkMayLogAndChangeSinks) {
    struct Changing : LogSink {
        explicit Changing(std::shared_ptr<LogSink> following) : next(std::move(following)) {}
        void record(const LogRecord& /*record*/) override {
            logger().sink(next);
            logger().message(2, 0, "inside");
        }
        std::shared_ptr<LogSink> next;
    };
    logger().sink(std::make_shared<Changing>(m_sink));
    logger().message(1, 0, "outside");
    ASSERT_EQ(m_sink->records().size(), 1U);
    EXPECT_EQ(m_sink->records()[0].event, 2U);
}

/// What `act` writes to standard error.
template <class Act> std::string standardErrorOf(Act act) {
    testing::internal::CaptureStderr();
    act();
    return testing::internal::GetCapturedStderr();
}

TEST_F(LogSinks, StandardErrorGetsOneEscapedLinePerRecord) {
    logger().sink(nullptr);
    const auto text = standardErrorOf(
        [] { logger().message(0x300005D, 0, "%s\x01%d", "evil\n2026-01-01 forged | field\x1B[2J\x01\xFF", 5); });
    EXPECT_THAT(text, testing::MatchesRegex(
                          R"(^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]*[+-][0-9]{2}:[0-9]{2} \[[0-9]+\] warning: 0x300005D: )"
                          R"(evil\\x0A2026-01-01 forged \\x7C field\\x1B\[2J\\x01\\xFF \| 5)"
                          "\n$"));
}

TEST_F(LogSinks, EventsAreNotGroupedWhateverTheHostsLocale) {
    logger().sink(nullptr);
    const norvtest::GroupingDigits grouping;
    const auto text = standardErrorOf([] { logger().message(0x3000061, 0, "%s", "x"); });
    EXPECT_THAT(text, testing::EndsWith(" warning: 0x3000061: x\n"));
}

TEST_F(LogSinks, StandardErrorTellsTheSeverityOfALevel) {
    logger().sink(nullptr);
    logger().level(5);
    const auto text = standardErrorOf([] {
        for (const int level : {-1, 0, 1, 2, 5}) {
            logger().message(1, level, "x");
        }
    });
    EXPECT_THAT(text, testing::ContainsRegex("error: .*\n.*warning: .*\n.*info: .*\n.*debug: .*\n.*debug: 0x1: x\n$"));
}

TEST_F(LogSinks, StandardErrorCutsLongFieldsBetweenCharacters) {
    logger().sink(nullptr);
    const auto text = standardErrorOf([] {
        logger().message(1, 0, "%s\x01%s", (std::string(2047, 'x') + "\xC3\xBC" + std::string(100, 'y')).c_str(),
                         "next");
    });
    EXPECT_THAT(text, HasSubstr("0x1: " + std::string(2047, 'x') + "... (102 more bytes) | next\n"));
}

TEST_F(LogSinks, SyslogGetsTheLineUnderItsName) {
    s_syslog.clear();
    logger().useSyslog("norvmail");
    logger().message(0x3000050, 0, "%s", "s_signature%sVerify\n");
    logger().message(0x3000050, -1, "%s", "worse");
    EXPECT_EQ(s_syslog, (Fields{"open norvmail", "4 0x3000050: s_signature%sVerify\\x0A", "3 0x3000050: worse"}));
    EXPECT_TRUE(m_sink->records().empty());

    s_syslog.clear();
    Logger::instance(true).message(1, 0, "x");
    EXPECT_EQ(s_syslog, (Fields{"close", "open norvmail", "4 0x1: x"})) << "a renewed connection is closed first";

    s_syslog.clear();
    logger().sink(nullptr);
    EXPECT_EQ(s_syslog, Fields{"close"});
    EXPECT_THAT(standardErrorOf([] { logger().message(1, 0, "back"); }), HasSubstr("0x1: back\n"));
}

TEST_F(LogSinks, AForkWhileOtherThreadsLogLeavesTheLogUsable) {
    logger().sink(nullptr);
    std::atomic<bool> done{false};
    const auto text = standardErrorOf([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                while (!done) {
                    logger().message(1, 0, "%s", "parent");
                }
            });
        }
        for (int i = 0; i < 20; ++i) {
            const auto child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                ::alarm(20); // a lock that stayed taken would hang here
                logger().message(2, 0, "%s", "child");
                Logger::instance(true).message(3, 0, "%s", "renewed child");
                ::_exit(0);
            }
            int status = 0;
            EXPECT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        }
        done = true;
        for (auto& thread : threads) {
            thread.join();
        }
    });
    EXPECT_THAT(text, HasSubstr("0x2: child\n"));
    EXPECT_THAT(text, HasSubstr("0x3: renewed child\n"));
}

TEST(LoggerConcurrency, RecordsFromSeveralThreadsAllArriveWhole) {
    const auto sink = std::make_shared<RecordingLogSink>();
    logger().sink(sink);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (unsigned int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                logger().message(t, 0, "%u\x01%d", t, i);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    logger().sink(nullptr);
    const auto records = sink->records();
    ASSERT_EQ(records.size(), 2000U);
    std::vector<int> next(4, 0);
    for (const auto& record : records) {
        const Fields expected{std::to_string(record.event), std::to_string(next.at(record.event)++)};
        EXPECT_EQ(record.fields, expected);
    }
}

TEST(LoggerConcurrency, SinksAndLevelsChangeWhileOthersLog) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    const auto text = standardErrorOf([&] {
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                while (!done) {
                    logger().message(1, 0, "%s", "x");
                }
            });
        }
        for (int i = 0; i < 100; ++i) {
            logger().sink(std::make_shared<RecordingLogSink>());
            logger().level(i % 2);
            logger().sink(nullptr);
            Logger::instance(true);
        }
        done = true;
        for (auto& thread : threads) {
            thread.join();
        }
    });
    logger().level(0);
    EXPECT_EQ(logger().level(), 0);
    for (std::size_t start = 0; start < text.size();) {
        const auto end = text.find('\n', start);
        ASSERT_NE(end, std::string::npos);
        EXPECT_THAT(text.substr(start, end - start), testing::EndsWith(" warning: 0x1: x"));
        start = end + 1;
    }
}

} // namespace
