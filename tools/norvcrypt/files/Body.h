#pragma once

#include "files/Input.h"
#include "files/Progress.h"

#include <norvcmsg/Media.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace norvcrypt {

/// What is signed or encrypted: passed on in large pieces, in constant memory. Its length is known before where that is
/// certain: of files, and of what ends within the first piece, wherever it comes from.
class Body {
public:
    /// Reads the first piece. \throws Failure as `Inputs::open`, or the file cannot be read
    Body(Inputs& inputs, const std::string& path, Progress* progress);
    ~Body();
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    /// How many bytes it has; nothing for a pipe. A file that changes meanwhile will have another number of them.
    [[nodiscard]] std::optional<std::uint64_t> length() const noexcept { return m_length; }
    /// Passes on all of it, once. \throws Failure: it cannot be read
    void write(Norvane::MediaOut& target);

private:
    void fill();

    std::optional<std::uint64_t> m_size; ///< of the file
    Norvane::MediaIn m_in;
    std::unique_ptr<unsigned char[]> m_piece; // NOLINT(*-avoid-c-arrays): not filled with zeros first
    unsigned int m_filled = 0;
    std::size_t m_used = 0; ///< what is to be wiped
    std::optional<std::uint64_t> m_length;
};

} // namespace norvcrypt
