#pragma once

/// \file
/// What supervisor and worker tell each other: short texts over a pair of sockets that keeps them apart.

#include "daemon/Descriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace norvmilter {

class Channel {
public:
    /// Two ends. \throws std::system_error
    [[nodiscard]] static std::pair<Channel, Channel> make();

    explicit Channel(Descriptor descriptor) : m_descriptor(std::move(descriptor)) {}

    [[nodiscard]] int descriptor() const noexcept { return m_descriptor.get(); }
    /// False: the other end is gone, or does not read. Texts are cut at 4,000 bytes.
    bool tell(const std::string& text) const noexcept;
    /// What was told; empty when nothing was yet; nothing when the other end is gone. Does not wait.
    [[nodiscard]] std::optional<std::string> hear() const;

private:
    Descriptor m_descriptor;
};

/// Waits until a descriptor can be read. False: the time is over.
bool waitToRead(int descriptor, std::chrono::milliseconds most);

} // namespace norvmilter
