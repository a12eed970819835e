#pragma once

#include "files/Input.h"
#include "files/Progress.h"

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <cstdint>
#include <optional>
#include <string>

namespace norvcrypt {

/// A body that is read once and, if something is wrong with it, again. What comes through a pipe is kept meanwhile, beyond
/// 1 MiB in a file without a name, unless it is longer than is looked at a second time.
class RepeatableBody {
public:
    /// \throws Failure as `Inputs::open`
    RepeatableBody(Inputs& inputs, const std::string& path, std::uint64_t longest, Progress* progress);

    /// Passes on all of it, once.
    void write(Norvane::MediaOut& target);
    /// Whether it can be read again: what was kept, or the file, which nobody should have changed.
    [[nodiscard]] bool canRepeat() const noexcept { return m_begin || m_kept; }
    /// From its beginning; the one handed out before is not to be used again.
    [[nodiscard]] Norvane::MediaIn again();

private:
    Norvane::MediaIn m_in;
    std::uint64_t m_longest;
    std::optional<unsigned long> m_begin; ///< where a file is gone back to
    std::optional<Norvane::SwapBufferMediaOut> m_kept;
};

} // namespace norvcrypt
