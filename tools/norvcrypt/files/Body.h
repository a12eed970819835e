#pragma once

#include "files/Input.h"
#include "files/Progress.h"
#include "files/Scratch.h"

#include <norvcmsg/Media.h>

#include <cstdint>
#include <optional>
#include <string>

namespace norvcrypt {

/// What is signed or encrypted: passed on in large pieces, in constant memory. Its length is known before where that is
/// certain: of files, and of what ends within the first piece, wherever it comes from.
class Body {
public:
    /// Reads the first piece. \throws Failure as `Inputs::open`, or the file cannot be read
    Body(Inputs& inputs, const std::string& path, Progress* progress);

    /// How many bytes it has; nothing for a pipe. A file that changes meanwhile will have another number of them.
    [[nodiscard]] std::optional<std::uint64_t> length() const noexcept { return m_length; }
    /// Passes on all of it, once. \throws Failure: it cannot be read
    void write(Norvane::MediaOut& target);

private:
    void fill(unsigned int length);

    Norvane::MediaIn m_in;
    Scratch m_piece;
    unsigned int m_filled = 0;
    std::optional<std::uint64_t> m_length;
};

} // namespace norvcrypt
