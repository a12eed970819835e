#pragma once

/// \file
/// A front with a judge of the test's, asked as libmilter asks.

#include "front/Callbacks.h"
#include "milter/support/FakeLibmilter.h"

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace norvtest {

/// Keeps the lines.
class KeptLog : public norvmilter::Log {
public:
    KeptLog() : Log(norvmilter::LogTarget::standardError, norvmilter::LogLevel::debug) {}
    std::vector<std::string> lines;

protected:
    void write(norvmilter::LogLevel /*level*/, const std::string& line) override {
        const std::lock_guard<std::mutex> guard(m_mutex);
        lines.push_back(line);
    }

private:
    std::mutex m_mutex;
};

using Judge = std::function<norvmilter::Outcome(const norvmilter::Message&, const norvmilter::Deadline&)>;

class FrontBench {
public:
    explicit FrontBench(
        Judge judge = [](const auto&, const auto&) { return norvmilter::Outcome(); },
        norvmilter::FrontLimits limits = {})
        : generation{std::move(limits), std::move(judge), [](const auto&) {}} {}

    /// What all is to be changed in before `front()` is called first.
    norvmilter::Generation generation;
    KeptLog log;
    norvmilter::Metrics metrics;

    norvmilter::Front& front() {
        if (!m_front)
            m_front = std::make_unique<norvmilter::Front>(log, metrics,
                                                          std::make_shared<const norvmilter::Generation>(generation),
                                                          std::chrono::milliseconds(20));
        return *m_front;
    }

private:
    std::unique_ptr<norvmilter::Front> m_front;
};

/// All that Postfix offers.
constexpr unsigned long allActions = 0x1FF;
constexpr unsigned long allSteps = 0x1FFFFF;

/// A connection of an MTA.
class Asking {
public:
    explicit Asking(FrontBench& bench) : m_callbacks(norvmilter::callbacksFor(bench.front())) {}
    Asking(const Asking&) = delete;
    Asking& operator=(const Asking&) = delete;
    ~Asking() { close(); }

    smfi_str context;

    sfsistat negotiate(unsigned long actions = allActions, unsigned long steps = allSteps) {
        unsigned long reserved = 0;
        return m_callbacks.xxfi_negotiate(&context, actions, steps, 0, 0, &agreedActions, &agreedSteps, &reserved,
                                          &reserved);
    }
    sfsistat connect(sockaddr* client = nullptr) { return m_callbacks.xxfi_connect(&context, name(), client); }
    sfsistat sender(std::string path, std::vector<std::string> parameters = {}) {
        return m_callbacks.xxfi_envfrom(&context, pointersTo(path, parameters).data());
    }
    sfsistat recipient(std::string path, std::vector<std::string> parameters = {}) {
        return m_callbacks.xxfi_envrcpt(&context, pointersTo(path, parameters).data());
    }
    sfsistat header(std::string name, std::string value) {
        return m_callbacks.xxfi_header(&context, name.data(), value.data());
    }
    sfsistat body(std::string octets) {
        return m_callbacks.xxfi_body(&context, reinterpret_cast<unsigned char*>(octets.data()), octets.size());
    }
    sfsistat end() { return m_callbacks.xxfi_eom(&context); }
    void abort() { m_callbacks.xxfi_abort(&context); }
    void close() { m_callbacks.xxfi_close(&context); }

    /// Up to the last octet.
    void message(const std::string& body = "hello\r\n",
                 const std::vector<std::string>& recipients = {"<b@b.example>"}) {
        sender("<a@a.example>");
        for (const std::string& one : recipients)
            recipient(one);
        header("Subject", " greetings");
        this->body(body);
    }

    unsigned long agreedActions = 0;
    unsigned long agreedSteps = 0;

private:
    /// As libmilter hands them over: a null pointer at the end. There may be no memory for more.
    static std::array<char*, 20> pointersTo(std::string& path, std::vector<std::string>& parameters) {
        std::array<char*, 20> arguments{path.data()};
        for (std::size_t index = 0; index < parameters.size(); ++index)
            arguments.at(index + 1) = parameters[index].data();
        return arguments;
    }
    static char* name() {
        static char text[] = "client.example";
        return text;
    }
    smfiDesc m_callbacks;
};

/// Keeps what the judge saw.
struct Seen {
    std::vector<norvmilter::Envelope> envelopes;
    std::vector<std::string> messages;
    std::vector<bool> tooLarge;

    Judge judge(norvmilter::Outcome outcome = {}) {
        return [this, outcome](const norvmilter::Message& message, const norvmilter::Deadline&) {
            std::string whole;
            message.whole().read(whole);
            envelopes.push_back(message.envelope);
            messages.push_back(whole);
            tooLarge.push_back(message.tooLarge);
            return outcome;
        };
    }
};

/// A body as the engine makes it.
inline Norvane::SwapBufferMediaOut spilled(const std::string& text) {
    Norvane::SwapBufferMediaOut out = norvmilter::spillIn("");
    out.write(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()));
    out.end();
    return out;
}

inline norvmilter::Outcome changing() {
    norvmilter::Outcome outcome;
    outcome.action = norvmilter::Outcome::Action::change;
    return outcome;
}

inline std::string lastCall(const Asking& asking) {
    return asking.context.calls.empty() ? "" : asking.context.calls.back();
}

/// Passes all, and counts.
inline Judge counting(int& judged) {
    return [&judged](const auto&, const auto&) {
        ++judged;
        return norvmilter::Outcome();
    };
}

} // namespace norvtest
