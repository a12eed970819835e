// The daemon as a process, asked by a peer that speaks the milter protocol, or does not.
#include "milter/running/MilterRunning.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using interop::Running;
using norvtest::MilterAnswer;
using norvtest::MilterPeer;
using norvtest::MilterRunning;
using testing::HasSubstr;

namespace {

/// Whether a process is at work. One whose parent ended may stay in the table after its end, where nobody asks for its status: the
/// first process of a container often does not.
bool isRunning(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t name = text.rfind(") ");
    return name != std::string::npos && text[name + 2] != 'Z' && text[name + 2] != 'X';
}

} // namespace

TEST_F(MilterRunning, MailPassesMessageByMessage) {
    start();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin("192.0.2.1"));
    for (const std::string id : {"ONE", "TWO", "THREE"}) {
        const MilterAnswer answer = peer.message(id, "hello\r\n");
        EXPECT_EQ('c', answer.kind);
        EXPECT_TRUE(answer.changes.empty());
        EXPECT_EQ("", answer.body);
        wait("event=message queue=" + id + " action=pass client=192.0.2.1 listener=smtpd");
    }
    // Given up in the middle.
    EXPECT_TRUE(peer.header("FOUR", "<>", {"<b@b.example>"}, {{"Subject", " a"}}));
    peer.send('A', "");
    EXPECT_EQ('c', peer.message("FIVE", "").kind);
    EXPECT_EQ('c', peer.message("SEVEN", std::string(3000000, 'x') + "\r\n").kind);
    wait("event=message queue=SEVEN action=pass");
    EXPECT_THAT(log(), HasSubstr("recipients=1 bytes=3000043"));
    peer.send('Q', "");
    EXPECT_FALSE(peer.receive());
    const std::string text = metrics();
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_messages_total{direction=\"incoming\",outcome=\"pass\"} 5\n"));
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_spills_total 1\n"));
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_messages_in_hand 0\n"));
    EXPECT_THAT(text, HasSubstr("norvcrypt_milter_connections 0\n"));
    EXPECT_EQ(0, stop());
    EXPECT_FALSE(std::filesystem::exists(socket()));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.path("spool")));
}

TEST_F(MilterRunning, ForgedResultsAreTakenOut) {
    start();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    peer.header("ONE", "<a@a.example>", {"<b@b.example>"},
                {{"Authentication-Results", " mx.a.example; smime=pass"},
                 {"Authentication-Results", " other.example; spf=pass"},
                 {"Authentication-Results", " MX.A.EXAMPLE (c); smime=pass"}});
    peer.body("hello\r\n");
    const MilterAnswer answer = peer.end();
    EXPECT_EQ('c', answer.kind);
    ASSERT_EQ(2U, answer.changes.size());
    using namespace std::string_literals;
    EXPECT_EQ('m', answer.changes[0].kind);
    EXPECT_EQ("\0\0\0\x03"s
              "Authentication-Results\0\0"s,
              answer.changes[0].data);
    EXPECT_EQ("\0\0\0\x01"s
              "Authentication-Results\0\0"s,
              answer.changes[1].data);
}

TEST_F(MilterRunning, ResultsAreCountedUnderTheirNames) {
    start();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    for (int number = 0; number < 2; ++number) {
        peer.header("ONE", "<a@a.example>", {"<b@b.example>"},
                    {{"From", " a@a.example"}, {"Content-Type", " application/pkcs7-mime; smime-type=signed-data"}});
        peer.body("no structure\r\n");
        ASSERT_EQ('c', peer.end().kind);
    }
    wait("verdict=damaged smime=neutral", 2);
    EXPECT_THAT(metrics(), HasSubstr("norvcrypt_milter_verdicts_total{verdict=\"neutral\"} 2\n"));
}

TEST_F(MilterRunning, MalformedPacketsHurtNobodyElse) {
    using namespace std::string_literals;
    start();
    const std::string negotiation = MilterPeer::packet('O', "\0\0\0\x06\0\0\x01\xFF\0\x1F\xFF\xFF"s);
    const std::vector<std::string> bad{
        "",
        "\0"s,
        "\0\0\0\0"s,
        "\xFF\xFF\xFF\xFF"s + "B",
        "\x7F\xFF\xFF\xFF"s + "Oxx",
        MilterPeer::packet('O', ""),
        MilterPeer::packet('O', "\0\0\0\x01\0\0\0\0\0\0\0\0"s),
        MilterPeer::packet('M', "<a>\0"s),
        MilterPeer::packet('E', ""),
        negotiation + MilterPeer::packet('C', ""),
        negotiation + MilterPeer::packet('C', "no zero"),
        negotiation + MilterPeer::packet('C', "x\0"
                                              "4"s),
        negotiation + MilterPeer::packet('C', "x\0"
                                              "9\0\0"
                                              "1.2.3.4\0"s),
        negotiation + MilterPeer::packet('C', "x\0"
                                              "4\0\x19not an address\0"s),
        negotiation + MilterPeer::packet('C', "x\0"
                                              "6\0\x19IPv6::::::\0"s),
        negotiation + MilterPeer::packet('C', "x\0U"s) + MilterPeer::packet('M', ""),
        negotiation + MilterPeer::packet('C', "x\0U"s) + MilterPeer::packet('M', "no zero"),
        negotiation + MilterPeer::packet('C', "x\0U"s) + MilterPeer::packet('L', "a\0b\0"s),
        negotiation + MilterPeer::packet('C', "x\0U"s) + MilterPeer::packet('M', "<a>\0"s) +
            MilterPeer::packet('L', "only one"),
        negotiation + MilterPeer::packet('C', "x\0U"s) + MilterPeer::packet('M', "<a>\0"s) +
            MilterPeer::packet('R', "\0"s) + MilterPeer::packet('B', "") + MilterPeer::packet('E', "rest") +
            MilterPeer::packet('E', ""),
        negotiation + MilterPeer::packet('D', "") + MilterPeer::packet('D', "M") + MilterPeer::packet('D', "Mi\0"s) +
            MilterPeer::packet('D', std::string(60000, '\0')),
        negotiation + MilterPeer::packet('?', "what") + MilterPeer::packet('\0', ""),
        negotiation + negotiation + negotiation,
    };
    std::mt19937 random(20261122);
    for (std::size_t i = 0; i < bad.size() + 300; ++i) {
        std::string octets;
        if (i < bad.size()) {
            octets = bad[i];
        } else {
            // Any packets, and some whose length is not theirs.
            octets = random() % 4 == 0 ? "" : negotiation;
            for (unsigned int packets = random() % 8; packets > 0; --packets) {
                std::string data(random() % 40, '\0');
                for (char& one : data)
                    one = static_cast<char>(random() % 3 == 0 ? 0 : random());
                octets += MilterPeer::packet("OCHMRLNBEAQKDTU"[random() % 15], data);
            }
            if (!octets.empty() && random() % 3 == 0)
                octets[random() % octets.size()] = static_cast<char>(random());
        }
        MilterPeer peer(socket());
        ASSERT_TRUE(peer.isConnected());
        peer.send(octets);
        // Some wait for the answer, some are gone.
        if (i % 4 == 0)
            peer.receive(20);
    }
    expectMailPasses("AFTER");
    EXPECT_EQ(1, count("event=worker-started")) << log();
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, SlowPeersKeepNobodyWaiting) {
    start("timeout = 2\n");
    std::vector<std::unique_ptr<MilterPeer>> slow;
    for (int i = 0; i < 30; ++i) {
        slow.push_back(std::make_unique<MilterPeer>(socket()));
        ASSERT_TRUE(slow.back()->isConnected());
        // The first octets of a negotiation, and of a body.
        if (i % 2 == 0) {
            slow.back()->send(std::string("\0\0\0", 3));
        } else {
            slow.back()->begin();
            slow.back()->header("SLOW", "<a@a.example>", {"<b@b.example>"}, {});
            slow.back()->send(MilterPeer::packet('B', std::string(1000, 'x')).substr(0, 500));
        }
    }
    for (int i = 0; i < 5; ++i)
        expectMailPasses("FAST" + std::to_string(i));
    // Those that began a packet and do not end it are let go.
    EXPECT_FALSE(slow[0]->receive());
    EXPECT_FALSE(slow[1]->receive());
    EXPECT_EQ(1, count("event=worker-started"));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, AHundredConnectionsAndOneMore) {
    start();
    std::vector<std::unique_ptr<MilterPeer>> peers;
    for (int i = 0; i < 100; ++i) {
        peers.push_back(std::make_unique<MilterPeer>(socket()));
        ASSERT_EQ('c', peers.back()->begin()) << i;
    }
    MilterPeer last(socket());
    EXPECT_EQ('y', last.begin());
    // All of them have a message in hand at the same time.
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(peers[static_cast<std::size_t>(i)]->header("Q" + std::to_string(i), "<a@a.example>",
                                                               {"<b@b.example>"}, {}));
    for (const auto& peer : peers)
        EXPECT_TRUE(peer->body("hello\r\n"));
    for (const auto& peer : peers)
        EXPECT_EQ('c', peer->end().kind);
    peers.clear();
    expectMailPasses("AFTER");
    EXPECT_EQ(101, count("event=message "));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, LimitsOfRecipientsAndSize) {
    start("", "[limits]\nrecipients = 2\nmessage_bytes = 100000\ntoo_large = \"reject\"\n");
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    EXPECT_FALSE(peer.header("ONE", "<a@a.example>", {"<b@b.example>", "<c@b.example>", "<d@b.example>"}, {}));
    EXPECT_TRUE(peer.body("hello\r\n"));
    EXPECT_EQ('c', peer.end().kind);
    const MilterAnswer answer = peer.message("TWO", std::string(500000, 'x'));
    EXPECT_EQ('y', answer.kind);
    EXPECT_THAT(answer.reply, testing::StartsWith("5")) << log();
    EXPECT_EQ('c', peer.message("THREE", "hello\r\n").kind);
}

TEST_F(MilterRunning, ReloadedAHundredTimesUnderLoad) {
    start();
    std::atomic<bool> isOver{false};
    std::atomic<int> good{0};
    std::atomic<int> bad{0};
    std::vector<std::thread> mtas;
    for (int thread = 0; thread < 4; ++thread) {
        mtas.emplace_back([&, thread] {
            int sent = 0;
            while (!isOver) {
                MilterPeer peer(socket());
                if (peer.begin() != 'c')
                    ++bad;
                for (int i = 0; i < 5; ++i) {
                    const bool isGood =
                        peer.message("T" + std::to_string(thread) + "X" + std::to_string(sent++), "hello\r\n").kind ==
                        'c';
                    ++(isGood ? good : bad);
                }
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        daemon().signal(SIGHUP);
        // Until it was heard: several at once are one.
        wait("event=reloaded", i + 1);
    }
    isOver = true;
    for (std::thread& one : mtas)
        one.join();
    EXPECT_EQ(0, bad);
    EXPECT_GE(good, 20);
    EXPECT_EQ(good, count("event=message ")) << "each was answered once";
    EXPECT_EQ(1, count("event=worker-started"));
    EXPECT_THAT(metrics(), HasSubstr("norvcrypt_milter_reloads_total{result=\"success\"} 100\n"));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, ABadConfigurationLeavesTheOldOne) {
    start();
    m_folder.write("milter.toml", "[milter]\nsocket = 3\n");
    daemon().signal(SIGHUP);
    wait("event=reload-failed");
    EXPECT_THAT(log(), HasSubstr("milter.toml"));
    expectMailPasses("OLD");
    EXPECT_THAT(metrics(), HasSubstr("norvcrypt_milter_reloads_total{result=\"failure\"} 1\n"));
    // What cannot be changed while it runs is said.
    configure("socket_mode = \"0600\"");
    daemon().signal(SIGHUP);
    wait("event=needs-restart key=milter.socket");
    wait("event=reloaded");
    // The supervisor gives a worker the time that it has now.
    configure("stop_timeout = 3000");
    daemon().signal(SIGHUP);
    wait("event=reloaded", 2);
    EXPECT_EQ(0, stop());
    EXPECT_EQ(1, count("event=stopping seconds=3010")) << log();
}

TEST_F(MilterRunning, StoppingFinishesWhatIsInHand) {
    start();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    ASSERT_TRUE(peer.header("LAST", "<a@a.example>", {"<b@b.example>"}, {{"Subject", " a"}}));
    MilterPeer idle(socket());
    ASSERT_EQ('c', idle.begin());
    daemon().signal(SIGTERM);
    wait("event=stopping");
    // New messages and connections are put off while the worker waits.
    bool isPutOff = false;
    for (int i = 0; i < 200 && !isPutOff; ++i) {
        isPutOff = !idle.header("NEW", "<a@a.example>", {}, {});
        if (!isPutOff)
            idle.send('A', "");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(isPutOff);
    EXPECT_TRUE(peer.body("hello\r\n"));
    EXPECT_EQ('c', peer.end().kind);
    EXPECT_EQ(0, daemon().end());
    EXPECT_THAT(log(), HasSubstr("event=message queue=LAST action=pass"));
    EXPECT_THAT(log(), HasSubstr("event=worker-stopping in_hand=0"));
    EXPECT_THAT(log(), HasSubstr("event=stopped worker=\"exit 0\""));
}

TEST_F(MilterRunning, StoppingDoesNotWaitForEver) {
    start("stop_timeout = 1\n");
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    ASSERT_TRUE(peer.header("NEVER", "<a@a.example>", {"<b@b.example>"}, {}));
    EXPECT_EQ(0, stop());
    EXPECT_THAT(log(), HasSubstr("event=worker-stopping in_hand=1"));
    EXPECT_FALSE(peer.body("hello\r\n"));
}

TEST_F(MilterRunning, AWorkerThatIsKilledIsStartedAnew) {
    start();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    ASSERT_TRUE(peer.header("LOST", "<a@a.example>", {"<b@b.example>"}, {}));
    ::kill(worker(), SIGKILL);
    EXPECT_FALSE(peer.receive()) << "the MTA sees that the filter is gone, and does what it is told to do then";
    // The socket is there all the time: who connects now waits for the next worker.
    expectMailPasses("NEXT");
    EXPECT_THAT(log(), HasSubstr("event=worker-ended reason=\"signal 9 (Killed)\" pause_ms=100"));
    wait("event=worker-started", 2); // the supervisor tells of it when the worker is at work
    EXPECT_EQ(2, count("event=worker-started"));
    EXPECT_THAT(metrics(), HasSubstr("norvcrypt_milter_worker_restarts 1\n"));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, AWorkerWithoutASupervisorEnds) {
    start();
    const pid_t last = worker();
    daemon().signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, daemon().end());
    for (int i = 0; i < 1000 && isRunning(last); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(isRunning(last));
    // What it left behind does not keep the next one from starting.
    EXPECT_TRUE(std::filesystem::exists(socket()));
    start();
    expectMailPasses("NEXT");
}

// It finishes what it has in hand, and is in nobody's way meanwhile.
TEST_F(MilterRunning, AWorkerWithoutASupervisorTakesNothingMore) {
    const std::string keys = "pid_file = \"" + m_folder.path("pid") + "\"\n";
    start(keys);
    const pid_t last = worker();
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    ASSERT_TRUE(peer.header("LAST", "<a@a.example>", {"<b@b.example>"}, {{"Subject", " a"}}));
    daemon().signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, daemon().end());
    bool isClosed = false;
    for (int i = 0; i < 500 && !isClosed; ++i) {
        isClosed = !MilterPeer(socket()).isConnected();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(isClosed);
    EXPECT_TRUE(isRunning(last)) << "it has a message in hand";
    start(keys);
    expectMailPasses("NEXT");
    EXPECT_TRUE(peer.body("hello\r\n"));
    EXPECT_EQ('c', peer.end().kind);
    for (int i = 0; i < 1000 && isRunning(last); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(isRunning(last));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, AFullDiskIsTemporary) {
    const std::string config = configure();
    // Files end at 64 KB: as much as there is room on the disk.
    m_daemon = std::make_unique<Running>(
        std::vector<std::string>{"sh", "-c", "ulimit -f 128; exec \"$0\" --config \"$1\" --foreground --allow-root",
                                 program, config},
        m_folder.path());
    wait("event=loaded");
    MilterPeer peer(socket());
    ASSERT_EQ('c', peer.begin());
    const MilterAnswer answer = peer.message("LARGE", std::string(400000, 'x'));
    EXPECT_EQ('y', answer.kind);
    EXPECT_EQ("451 4.3.0 mail cannot be judged now, please try again later", answer.reply);
    EXPECT_EQ('c', peer.message("SMALL", "hello\r\n").kind);
    std::filesystem::remove(m_folder.path("spool"));
    EXPECT_EQ('y', peer.message("NOWHERE", std::string(100000, 'x')).kind);
    EXPECT_EQ('c', peer.message("STILL", "hello\r\n").kind);
    EXPECT_EQ(1, count("event=worker-started"));
    EXPECT_EQ(0, stop());
}

TEST_F(MilterRunning, SystemdUnderstandsTheUnit) {
    const std::string unit = m_folder.path("norvcrypt-milter.service");
    // systemd looks for the program, too.
    const interop::Answer made = interop::run(
        {.arguments = {"sh", "-c", "sed \"s|/usr/bin/norvcrypt-milter|$0|\" \"$1\" > \"$2\"", program,
                       std::string(norvtest::sourceDirectory) + "/tools/milter/systemd/norvcrypt-milter.service",
                       unit}});
    ASSERT_EQ(0, made.status) << made.err;
    if (interop::run({.arguments = {"sh", "-c", "command -v systemd-analyze"}}).status != 0)
        GTEST_SKIP() << "systemd-analyze is not installed";
    const interop::Answer answer = interop::run({.arguments = {"systemd-analyze", "verify", "--man=no", unit}});
    EXPECT_EQ(0, answer.status) << answer.err;
    EXPECT_EQ("", answer.err);
}

TEST_F(MilterRunning, StartsThatFailSayWhy) {
    const std::string config = configure("pid_file = \"" + m_folder.path("pid") + "\"");
    const auto answered = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), program);
        const interop::Answer answer = interop::run({.arguments = arguments});
        EXPECT_EQ(2, answer.status) << answer.err;
        return answer.err;
    };
    EXPECT_THAT(answered({}), HasSubstr("--config FILE is missing"));
    EXPECT_THAT(answered({"--config", m_folder.path("none"), "--allow-root"}), HasSubstr(m_folder.path("none")));
    if (::geteuid() == 0) {
        EXPECT_THAT(answered({"--config", config, "--foreground"}), HasSubstr("does not run as root"));
        EXPECT_THAT(answered({"--config", config, "--user", "nosuchuser"}), HasSubstr("there is no user"));
    }
    start("pid_file = \"" + m_folder.path("pid") + "\"");
    EXPECT_THAT(answered({"--config", config, "--allow-root", "--foreground"}), HasSubstr("another one runs"));
    std::filesystem::remove(m_folder.path("pid"));
    EXPECT_THAT(answered({"--config", config, "--allow-root"}), HasSubstr("somebody listens on it already"));
    expectMailPasses("STILL");
    EXPECT_EQ(0, stop());
    // What only the worker finds.
    m_folder.write("milter.toml", "[milter]\nsocket = \"unix:" + socket() +
                                      "\"\nauthserv_id = \"mx.a.example\"\nspool = \"/nonexistent/spool\"\n");
    EXPECT_THAT(answered({"--config", config, "--allow-root"}), HasSubstr("/nonexistent/spool"));
    EXPECT_FALSE(std::filesystem::exists(socket()));
}

TEST_F(MilterRunning, AnswersThatCannotBeWrittenAreNone) {
    if (!std::filesystem::exists("/dev/full"))
        GTEST_SKIP() << "there is no /dev/full";
    const std::string config = configure("");
    for (std::vector<std::string> arguments :
         {std::vector<std::string>{"--version"},
          {"check", "--config", config},
          {"explain", "--config", config, "--from", "a@a.example", "--to", "b@b.example"}}) {
        arguments.insert(arguments.begin(), program);
        EXPECT_NE(2, interop::run({.arguments = arguments}).status);
        const interop::Answer full = interop::run({.arguments = arguments, .outputFile = "/dev/full"});
        EXPECT_EQ(2, full.status) << arguments[1];
        EXPECT_EQ("norvcrypt-milter: cannot write standard output\n", full.err);
        EXPECT_EQ(2, interop::run({.arguments = arguments, .outputClosed = true}).status) << arguments[1];
    }
}

TEST_F(MilterRunning, InTheBackground) {
    const std::string config = configure("pid_file = \"" + m_folder.path("pid") + "\"");
    const interop::Answer answer = interop::run({.arguments = {program, "--config", config, "--allow-root"}});
    ASSERT_EQ(0, answer.status) << answer.err;
    MilterPeer peer(socket());
    EXPECT_EQ('c', peer.begin());
    EXPECT_EQ('c', peer.message("ONE", "hello\r\n").kind);
    peer.close();
    const pid_t process = std::stoi(m_folder.read("pid"));
    EXPECT_NE(::getsid(0), ::getsid(process));
    ::kill(process, SIGTERM);
    for (int i = 0; i < 1000 && std::filesystem::exists(m_folder.path("pid")); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(std::filesystem::exists(m_folder.path("pid")));
    EXPECT_FALSE(std::filesystem::exists(socket()));
}

TEST_F(MilterRunning, RootBecomesAnother) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "not root";
    const std::string config = configure("socket_mode = \"0600\"");
    constexpr uid_t nobody = 65534;
    std::filesystem::permissions(m_folder.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(config, std::filesystem::perms(0644));
    ASSERT_EQ(0, ::chown(m_folder.path("spool").c_str(), nobody, nobody));
    m_daemon = std::make_unique<Running>(
        std::vector<std::string>{program, "--config", config, "--foreground", "--user", "nobody"}, m_folder.path());
    wait("event=loaded");
    struct stat found {};
    ASSERT_EQ(0, ::stat(socket().c_str(), &found));
    EXPECT_EQ(nobody, found.st_uid);
    EXPECT_EQ(0600U, found.st_mode & 0777);
    ASSERT_EQ(0, ::stat(("/proc/" + std::to_string(worker())).c_str(), &found));
    EXPECT_EQ(nobody, found.st_uid);
    expectMailPasses("ONE");
    EXPECT_EQ(0, stop());
}
