#pragma once

/// \file
/// The file with the number of the process, which keeps a second daemon of the same configuration from starting.

#include "daemon/Descriptor.h"

#include <string>

namespace norvmilter {

class PidFile {
public:
    /// Takes the file, before privileges go and the process gets its last number. \param path empty: there is none
    /// \throws std::runtime_error it cannot be made, or a process that runs has it, or it holds something else than a
    /// number
    explicit PidFile(const std::string& path);

    /// Writes the number of this process. \throws std::runtime_error the disk is full
    void write() const;
    /// Of a child that is not the daemon: it does not keep the file when the daemon is gone.
    void leave() noexcept;
    /// Empties the file, and removes it where the folder lets this user.
    void remove() noexcept;

private:
    std::string m_path;
    Descriptor m_file;
};

} // namespace norvmilter
