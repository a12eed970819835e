#pragma once

/// \file
/// An MTA as a filter sees it: speaks the milter protocol over a unix socket, or talks nonsense on it.

#include "daemon/Descriptor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace norvtest {

/// A packet: a letter and what belongs to it.
struct Packet {
    char kind = 0;
    std::string data;
};

/// What a filter answered to a message: the last packet, and the changes before it.
struct MilterAnswer {
    char kind = 0; ///< 'c' continue, 'a' accept, 'r' reject, 't' tempfail, 'y' with a reply, 'd' discard; 0: hung up
    std::string reply; ///< of 'y'
    std::vector<Packet> changes;
    std::string body; ///< of all 'b' together
};

class MilterPeer {
public:
    /// Connects; `isConnected` tells whether it did.
    explicit MilterPeer(const std::string& path);

    [[nodiscard]] bool isConnected() const { return static_cast<bool>(m_socket); }

    /// False: the filter is gone.
    bool send(const std::string& octets) const;
    bool send(char kind, const std::string& data) const { return send(packet(kind, data)); }
    static std::string packet(char kind, const std::string& data);
    /// The next packet; nothing when the filter hung up, or said nothing for 20 seconds. \param milliseconds how long else
    std::optional<Packet> receive(int milliseconds = 20000);

    /// Option negotiation as Postfix does it. \return the answer's octets
    std::optional<Packet> negotiate(std::uint32_t actions = 0x1FF, std::uint32_t steps = 0x1FFFFF);
    /// A macro list in front of a command.
    void macros(char command, const std::vector<std::string>& namesAndValues) const;
    /// Negotiation and connect. \return the answer to the latter
    char begin(const std::string& client = "127.0.0.1");
    /// Up to the empty line behind the header. \return false: something was not answered with "continue"
    bool header(const std::string& queueId, const std::string& sender, const std::vector<std::string>& recipients,
                const std::vector<std::pair<std::string, std::string>>& fields);
    bool body(const std::string& octets);
    MilterAnswer end();
    /// All of it.
    MilterAnswer message(const std::string& queueId, const std::string& text);

    void close() { m_socket.close(); }

private:
    /// Sends, and tells the answer's letter; 0: hung up.
    char ask(char kind, const std::string& data);

    norvmilter::Descriptor m_socket;
    std::string m_received;
};

} // namespace norvtest
