#include "milter/support/MilterPeer.h"

#include "daemon/Channel.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace norvtest {

namespace {

std::string number(std::uint32_t value) {
    std::string octets;
    for (int shift = 24; shift >= 0; shift -= 8)
        octets += static_cast<char>((value >> static_cast<unsigned int>(shift)) & 0xFFU);
    return octets;
}

std::uint32_t number(const std::string& octets) {
    std::uint32_t value = 0;
    for (const char one : octets.substr(0, 4))
        value = value << 8U | static_cast<unsigned char>(one);
    return value;
}

const std::string zero(1, '\0');

} // namespace

MilterPeer::MilterPeer(const std::string& path) : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    std::strncpy(place.sun_path, path.c_str(), sizeof place.sun_path - 1);
    if (::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&place), sizeof place) != 0)
        m_socket.close();
}

bool MilterPeer::send(const std::string& octets) const {
    for (std::size_t sent = 0; sent < octets.size();) {
        const ssize_t now = ::send(m_socket.get(), octets.data() + sent, octets.size() - sent, MSG_NOSIGNAL);
        if (now <= 0)
            return false;
        sent += static_cast<std::size_t>(now);
    }
    return true;
}

std::string MilterPeer::packet(char kind, const std::string& data) {
    return number(static_cast<std::uint32_t>(data.size() + 1)) + kind + data;
}

std::optional<Packet> MilterPeer::receive(int milliseconds) {
    while (m_received.size() < 4 || m_received.size() < 4 + number(m_received)) {
        char piece[65536];
        if (!norvmilter::waitToRead(m_socket.get(), std::chrono::milliseconds(milliseconds)))
            return std::nullopt;
        const ssize_t got = ::recv(m_socket.get(), piece, sizeof piece, 0);
        if (got <= 0)
            return std::nullopt;
        m_received.append(piece, static_cast<std::size_t>(got));
    }
    const std::size_t length = number(m_received);
    Packet packet{m_received[4], m_received.substr(5, length - 1)};
    m_received.erase(0, 4 + length);
    return packet;
}

std::optional<Packet> MilterPeer::negotiate(std::uint32_t actions, std::uint32_t steps) {
    send('O', number(6) + number(actions) + number(steps));
    return receive();
}

void MilterPeer::macros(char command, const std::vector<std::string>& namesAndValues) const {
    std::string data(1, command);
    for (const std::string& one : namesAndValues)
        data += one + zero;
    send('D', data);
}

char MilterPeer::ask(char kind, const std::string& data) {
    if (!send(kind, data))
        return 0;
    const std::optional<Packet> answer = receive();
    return answer ? answer->kind : '\0';
}

char MilterPeer::begin(const std::string& client) {
    if (!negotiate())
        return 0;
    macros('C', {"{daemon_name}", "smtpd"});
    return ask('C', "client.example" + zero + "4" + std::string("\x12\x34", 2) + client + zero);
}

bool MilterPeer::header(const std::string& queueId, const std::string& sender,
                        const std::vector<std::string>& recipients,
                        const std::vector<std::pair<std::string, std::string>>& fields) {
    if (ask('M', sender + zero) != 'c')
        return false;
    for (const std::string& one : recipients) {
        macros('R', {"i", queueId});
        if (ask('R', one + zero) != 'c')
            return false;
    }
    // No reply is wanted to these.
    return std::ranges::all_of(
        fields, [this](const auto& field) { return send('L', field.first + zero + field.second + zero); });
}

bool MilterPeer::body(const std::string& octets) {
    for (std::size_t begin = 0; begin < octets.size(); begin += 65535) {
        const char answer = ask('B', octets.substr(begin, 65535));
        if (answer == 's')
            return true;
        if (answer != 'c')
            return false;
    }
    return true;
}

MilterAnswer MilterPeer::end() {
    MilterAnswer answer;
    if (!send('E', ""))
        return answer;
    while (const std::optional<Packet> packet = receive()) {
        if (std::strchr("catrdy", packet->kind) != nullptr) {
            answer.kind = packet->kind;
            answer.reply = packet->data.substr(0, packet->data.find('\0'));
            return answer;
        }
        if (packet->kind == 'b')
            answer.body += packet->data;
        else if (packet->kind != 'p')
            answer.changes.push_back(*packet);
    }
    return answer;
}

MilterAnswer MilterPeer::message(const std::string& queueId, const std::string& text) {
    if (!header(queueId, "<a@a.example>", {"<b@b.example>"}, {{"From", " a@a.example"}, {"Subject", " greetings"}}) ||
        !body(text))
        return {};
    return end();
}

} // namespace norvtest
