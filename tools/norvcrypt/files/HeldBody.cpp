#include "files/HeldBody.h"
#include "files/Spill.h"

namespace norvcrypt {

HeldBody::HeldBody(OutputFile& out) : m_target(OutputStream(out)) {
    if (out.isHeldBack()) {
        m_file = &out;
        m_sink = m_target;
    } else {
        m_sink = m_spill.emplace(emptySpill());
    }
}

HeldBody::HeldBody(const Norvane::MediaOut& target) : m_target(target), m_spill(emptySpill()), m_sink(*m_spill) {}

void HeldBody::restart() {
    if (m_spill)
        m_spill->clear();
    else
        m_file->restart();
}

void HeldBody::release() {
    if (m_spill)
        m_spill->in().write(m_target);
    m_spill.reset();
    m_sink = m_target;
}

} // namespace norvcrypt
