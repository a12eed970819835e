#pragma once

/// \file
/// What is agreed on with an MTA, once for each socket.

#include <map>
#include <mutex>

namespace norvmilter {

/// What the MTA and this filter agreed on.
struct Agreed {
    /// Values of fields go both ways with the blank behind the colon. Older MTAs take it away and put it back.
    bool leadingBlank = false;
    bool noReplyToHeader = false;
    bool skip = false; ///< the rest of a body can be left out
    bool removesRecipients = false;
};

/// What sessions that ended had agreed on. An MTA may end one and go on with its next client over the same socket ("QUIT, but new
/// connection follows"), and does not negotiate again: what was agreed on holds. libmilter does not tell that from the end of the
/// socket. It is no matter that this one stays then: a context at the same address is one of a new socket, which negotiates.
///
/// Any number of threads may use one.
class Agreements {
public:
    void keep(const void* context, const Agreed& agreed) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_kept.insert_or_assign(context, agreed);
    }
    /// The least that can be agreed on where nothing is kept.
    [[nodiscard]] Agreed take(const void* context) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const auto found = m_kept.extract(context);
        return found.empty() ? Agreed() : found.mapped();
    }

private:
    std::mutex m_mutex;
    std::map<const void*, Agreed> m_kept;
};

} // namespace norvmilter
