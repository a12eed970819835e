#pragma once

/// \file
/// Sockets that are connected to one another over the loopback interface, and what their failures tell.

#include <norvcmsg/Exception.h>
#include <norvcmsg/Socket.h>

#include <string>
#include <variant>

namespace sockets {

/// A port of the loopback interface that the kernel chooses.
inline const Norvane::SocketAddress v4Any("127.0.0.1:0");
inline const Norvane::SocketAddress v6Any("[::1]:0");

inline Norvane::Socket listening(const Norvane::SocketAddress& address = v4Any) {
    Norvane::Socket listener(true);
    listener.bind(address);
    listener.listen();
    return listener;
}

/// Two ends of one connection.
struct Pair {
    explicit Pair(const Norvane::SocketAddress& address = v4Any) : Pair(listening(address)) {}
    explicit Pair(Norvane::Socket listener) : client(true) {
        client.connect(listener.localAddress());
        server = listener.accept();
    }
    Norvane::Socket client;
    Norvane::Socket server;
};

inline int send(Norvane::Socket& socket, const std::string& text) {
    return socket.send(reinterpret_cast<const Norvane::uchar_t*>(text.data()),
                       static_cast<Norvane::uint_t>(text.size()));
}

/// What one call receives.
inline std::string receive(Norvane::Socket& socket, std::size_t most = 65536) {
    std::string text(most, '\0');
    const int got =
        socket.receive(reinterpret_cast<Norvane::uchar_t*>(text.data()), static_cast<Norvane::uint_t>(text.size()));
    text.resize(static_cast<std::size_t>(got));
    return text;
}

/// Everything up to the end of the stream.
inline std::string receiveAll(Norvane::Socket& socket) {
    std::string all;
    for (std::string piece = receive(socket); !piece.empty(); piece = receive(socket)) {
        all += piece;
    }
    return all;
}

/// "where (code): text (error)" of the socket failure that `act` throws.
template <class Act> std::string failureOf(Act act) {
    try {
        act();
    } catch (const Norvane::SocketException& failure) {
        auto told = failure.where() + " (" + std::to_string(failure.code()) + ")";
        for (const auto& parameter : failure.parameters()) {
            const auto* const text = std::get_if<std::string>(&parameter);
            told += text != nullptr ? ": " + *text : " (" + std::to_string(std::get<int>(parameter)) + ")";
        }
        return told;
    }
    return "none";
}

/// A text of `length` bytes that shows when bytes are lost or swapped.
inline std::string pattern(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i % 251);
    }
    return text;
}

} // namespace sockets
