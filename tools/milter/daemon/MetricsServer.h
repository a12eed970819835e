#pragma once

/// \file
/// Answers "GET /metrics" on a local socket.

#include "daemon/Channel.h"

#include <functional>
#include <string>
#include <thread>

namespace norvmilter {

/// One request a connection, one connection after the other, none longer than two seconds and 4 KB: monitoring asks a few times a
/// minute.
class MetricsServer {
public:
    /// \param listening a socket that listens; it stays its owner's \param text makes the answer
    MetricsServer(int listening, std::function<std::string()> text);
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;
    /// Finishes the request in hand.
    ~MetricsServer();

private:
    void run();
    void answer(const Descriptor& client);

    int m_listening;
    std::function<std::string()> m_text;
    std::pair<Channel, Channel> m_stop = Channel::make();
    std::thread m_thread;
};

} // namespace norvmilter
