#ifndef NORVCMSG_MUTEX_H
#define NORVCMSG_MUTEX_H

/// \file
/// Locks.
///
/// \code
/// static Norvane::Mutex s_mutex;
/// const Norvane::Synchronized guard(s_mutex); // until the end of the scope
/// \endcode

#include <norvcmsg/Export.h>

#include <mutex>

namespace Norvane {

/// A plain lock; not recursive. A static one is usable before and after every other static object.
class NORVCMSG_EXPORT Mutex {
public:
    constexpr Mutex() noexcept = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    /// Waits until no thread holds the lock, and takes it.
    void lock();
    /// Gives the lock back; only the thread that holds it may.
    void unlock();
    /// Takes the lock when no thread holds it; false when one does.
    [[nodiscard]] bool try_lock();

private:
    std::mutex m_mutex;
};

/// Holds a lock for the length of a scope; a null lock is none.
class NORVCMSG_EXPORT Synchronized {
public:
    explicit Synchronized(Mutex& mutex);
    explicit Synchronized(Mutex* mutex);
    ~Synchronized();
    Synchronized(const Synchronized&) = delete;
    Synchronized& operator=(const Synchronized&) = delete;

private:
    Mutex* m_mutex;
};

} // namespace Norvane

#endif
