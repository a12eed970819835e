#pragma once

/// \file
/// A terminal that a program writes to: its path goes into `Command::outputFile`.

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace interop {

class Terminal {
public:
    Terminal() : m_master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        std::array<char, 128> name{};
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0 ||
            ptsname_r(m_master, name.data(), name.size()) != 0)
            throw std::runtime_error("no terminal");
        m_path = name.data();
        // Held open, so that what was written stays after the program has ended.
        m_slave = open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        fcntl(m_master, F_SETFL, O_NONBLOCK);
    }
    ~Terminal() {
        close(m_slave);
        close(m_master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    [[nodiscard]] const std::string& path() const { return m_path; }
    /// What was written to it, 4 KB at most: more would block the writer.
    [[nodiscard]] std::string written() const {
        std::string all;
        std::array<char, 4096> piece{};
        for (ssize_t count = 0; (count = read(m_master, piece.data(), piece.size())) > 0;)
            all.append(piece.data(), static_cast<std::size_t>(count));
        return all;
    }

private:
    int m_master;
    int m_slave = -1;
    std::string m_path;
};

} // namespace interop
