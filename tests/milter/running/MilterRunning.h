#pragma once

/// \file
/// A daemon as a process with a configuration of its own, and what a test asks of it.

#include "milter/support/MilterPeer.h"
#include "support/Places.h"
#include "support/Process.h"
#include "support/Running.h"
#include "support/TemporaryFolder.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace norvtest {

class MilterRunning : public testing::Test {
protected:
    /// \param name of the program
    explicit MilterRunning(const std::string& name = "norvcrypt-milter")
        : program(std::string(programDirectory) + name) {}

    const std::string program;

    /// \param more tables, and `keys` of [milter]
    std::string configure(const std::string& keys = "", const std::string& more = "") {
        std::filesystem::create_directories(m_folder.path("spool"));
        return m_folder.write("milter.toml", "[milter]\nsocket = \"unix:" + socket() +
                                                 "\"\nauthserv_id = \"mx.a.example\"\nspool = \"" +
                                                 m_folder.path("spool") + "\"\n" + keys +
                                                 "\n[metrics]\nsocket = \"unix:" + m_folder.path("metrics.sock") +
                                                 "\"\n[log]\nlevel = \"debug\"\n" + more);
    }
    void start(const std::string& keys = "", const std::string& more = "") {
        const std::string config = configure(keys, more);
        m_daemon = std::make_unique<interop::Running>(
            std::vector<std::string>{program, "--config", config, "--foreground", "--allow-root"}, m_folder.path());
        wait("event=loaded");
        // The supervisor writes by itself, and may come later.
        wait("restarts=0");
    }
    [[nodiscard]] std::string socket() const { return m_folder.path("milter.sock"); }
    [[nodiscard]] interop::Running& daemon() const { return *m_daemon; }
    [[nodiscard]] std::string log() const { return m_daemon->output(); }
    /// Until the log has a text so many times.
    void wait(const std::string& text, int times = 1) const {
        for (int i = 0; i < 12000 && count(text) < times; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_GE(count(text), times) << text << " in\n" << log();
    }
    int stop() {
        m_daemon->signal(SIGTERM);
        return m_daemon->end();
    }
    /// Of the worker that was started last.
    [[nodiscard]] pid_t worker() const {
        const std::string text = log();
        const std::string before = "event=worker-started pid=";
        return std::stoi(text.substr(text.rfind(before) + before.size()));
    }
    [[nodiscard]] int count(const std::string& text) const {
        const std::string whole = log();
        int found = 0;
        for (std::size_t at = 0; (at = whole.find(text, at)) != std::string::npos; ++at)
            ++found;
        return found;
    }
    void expectMailPasses(const std::string& queueId) const {
        MilterPeer peer(socket());
        EXPECT_EQ('c', peer.begin());
        EXPECT_EQ('c', peer.message(queueId, "hello\r\n").kind);
        wait("event=message queue=" + queueId + " action=pass");
    }
    std::string metrics() const {
        return interop::run(
                   {.arguments = {"python3", "-c",
                                  "import socket,sys\ns=socket.socket(socket.AF_UNIX)\ns.connect(sys.argv[1])\n"
                                  "s.sendall(b'GET /metrics HTTP/1.0\\r\\n\\r\\n')\n"
                                  "while True:\n d=s.recv(65536)\n if not d: break\n sys.stdout.write(d.decode())",
                                  m_folder.path("metrics.sock")}})
            .out;
    }

    TemporaryFolder m_folder;
    std::unique_ptr<interop::Running> m_daemon;
};

} // namespace norvtest
