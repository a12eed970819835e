#pragma once

#include <norvcmsg/Export.h>

#include <mutex>

namespace Norvane {

/// A plain lock; not recursive.
class NORVCMSG_EXPORT Mutex {
public:
    Mutex();
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void lock();
    void unlock();
    bool try_lock();

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
