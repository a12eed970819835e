#pragma once

/// \file
/// Sockets that the MTA and the monitoring connect to.
///
/// \code
/// ListenSocket socket("unix:/run/norvcrypt-milter/milter.sock", 0660);
/// poll(socket.descriptor(), ...);
/// \endcode

#include "daemon/Descriptor.h"

#include <string>
#include <sys/types.h>

namespace norvmilter {

/// Where to listen: "unix:PATH", "inet:PORT@ADDRESS" or "inet6:PORT@ADDRESS", the addresses numeric, "localhost", or left out with
/// the "@": all of the machine.
class ListenSocket {
public:
    /// Listens. A unix socket that nobody listens on any more is replaced; one that somebody listens on, and a file that is no
    /// socket, are left alone. \param mode the permissions of a unix socket
    /// \throws std::runtime_error it cannot be, with the reason
    ListenSocket(const std::string& address, mode_t mode);
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;
    ~ListenSocket() = default;

    [[nodiscard]] int descriptor() const noexcept { return m_descriptor.get(); }
    [[nodiscard]] const std::string& address() const noexcept { return m_address; }
    /// Of a unix socket; empty for others.
    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    /// Gives a unix socket to somebody. \throws std::runtime_error it cannot be
    void give(uid_t user, gid_t group) const;
    /// Removes the path of a unix socket, if it is still this one. Only who made it should: copies in other processes go on
    /// listening.
    void remove() noexcept;

private:
    void listenAt(const std::string& path, mode_t mode);
    void listenAt(int family, const std::string& portAndAddress);

    std::string m_address;
    std::string m_path;
    ino_t m_inode = 0;
    Descriptor m_descriptor;
};

} // namespace norvmilter
