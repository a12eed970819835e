#pragma once

/// \file
/// An SMTP server on loopback that does as a test says, and keeps what it was told.

#include "daemon/Channel.h"
#include "daemon/Descriptor.h"

#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace norvtest {

class FakeSmtp {
public:
    /// Answers a command or, by the name "(message)", the content of a message. Empty: hangs up. "(nothing)": no answer.
    using Answer = std::function<std::string(const std::string& command)>;

    explicit FakeSmtp(Answer answer = usual, std::string greeting = "220 fake ESMTP")
        : m_answer(std::move(answer)),
          m_greeting(std::move(greeting)) {
        m_listening = norvmilter::Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof place;
        if (::bind(m_listening.get(), reinterpret_cast<sockaddr*>(&place), length) != 0 ||
            ::listen(m_listening.get(), 16) != 0 ||
            ::getsockname(m_listening.get(), reinterpret_cast<sockaddr*>(&place), &length) != 0)
            throw std::runtime_error("no socket");
        m_port = ntohs(place.sin_port);
        m_thread = std::thread([this] { run(); });
    }
    FakeSmtp(const FakeSmtp&) = delete;
    FakeSmtp& operator=(const FakeSmtp&) = delete;
    ~FakeSmtp() {
        m_ending = true;
        m_thread.join();
    }

    [[nodiscard]] std::string url() const { return "smtp://127.0.0.1:" + std::to_string(m_port); }
    [[nodiscard]] std::vector<std::string> commands() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_commands;
    }
    /// Until the last one came, which nobody waits for.
    [[nodiscard]] std::vector<std::string> commandsUntilQuit() const {
        for (int waited = 0; waited < 2000; ++waited) {
            std::vector<std::string> now = commands();
            if (!now.empty() && now.back() == "QUIT")
                return now;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return commands();
    }
    /// As they were sent, dots and all, without the last line.
    [[nodiscard]] std::vector<std::string> messages() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_messages;
    }

    static std::string usual(const std::string& command) {
        if (command.starts_with("EHLO"))
            return "250-fake\r\n250-SIZE 1000000\r\n250-8BITMIME\r\n250 SMTPUTF8";
        return command == "DATA" ? "354 go on" : "250 2.0.0 fine";
    }

private:
    void run() {
        while (!m_ending) {
            if (!norvmilter::waitToRead(m_listening.get(), std::chrono::milliseconds(20)))
                continue;
            norvmilter::Descriptor client(::accept(m_listening.get(), nullptr, nullptr));
            m_received.clear();
            talk(client);
        }
    }

    bool line(const norvmilter::Descriptor& client, std::string& one) {
        while (true) {
            const std::size_t end = m_received.find("\r\n");
            if (end != std::string::npos) {
                one = m_received.substr(0, end);
                m_received.erase(0, end + 2);
                return true;
            }
            if (m_ending)
                return false;
            if (!norvmilter::waitToRead(client.get(), std::chrono::milliseconds(20)))
                continue;
            char piece[65536];
            const ssize_t got = ::recv(client.get(), piece, sizeof piece, 0);
            if (got <= 0)
                return false;
            m_received.append(piece, static_cast<std::size_t>(got));
        }
    }

    void talk(const norvmilter::Descriptor& client) {
        if (m_greeting.empty() || !say(client, m_greeting))
            return;
        for (std::string command; line(client, command);) {
            {
                const std::lock_guard<std::mutex> guard(m_mutex);
                m_commands.push_back(command);
            }
            const std::string answer = m_answer(command);
            if (!say(client, answer) || command == "QUIT")
                return;
            if (command == "DATA" && answer.starts_with("354") && !takeMessage(client))
                return;
        }
    }

    bool takeMessage(const norvmilter::Descriptor& client) {
        std::string whole;
        for (std::string one; line(client, one) && one != ".";)
            whole += one + "\r\n";
        {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_messages.push_back(whole);
        }
        return say(client, m_answer("(message)"));
    }

    static bool say(const norvmilter::Descriptor& client, const std::string& answer) {
        const std::string text = answer + "\r\n";
        if (answer == "(nothing)")
            return true;
        return !answer.empty() && ::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }

    Answer m_answer;
    std::string m_greeting;
    norvmilter::Descriptor m_listening;
    int m_port = 0;
    std::string m_received;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_commands;
    std::vector<std::string> m_messages;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;
};

} // namespace norvtest
