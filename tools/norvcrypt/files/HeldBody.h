#pragma once

#include "files/Output.h"

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <optional>

namespace norvcrypt {

/// A body of which nothing may be seen before it is known to be good: written straight into an output that appears only when
/// it is committed, and kept aside for any other.
class HeldBody {
public:
    /// `out` must outlive this, and is not committed by it.
    explicit HeldBody(OutputFile& out);
    /// For a target that cannot take back anything, and is not ended.
    explicit HeldBody(const Norvane::MediaOut& target);

    /// Where the body goes meanwhile.
    [[nodiscard]] Norvane::MediaOut& sink() noexcept { return m_sink; }
    /// Takes back what was written. \throws Failure or Norvane::Exception
    void restart();
    /// The body is good, and all that follows as well. \throws Failure or Norvane::Exception
    void release();

private:
    Norvane::MediaOut m_target;
    OutputFile* m_file = nullptr; ///< which takes back what is written
    std::optional<Norvane::SwapBufferMediaOut> m_spill;
    Norvane::MediaOut m_sink;
};

} // namespace norvcrypt
