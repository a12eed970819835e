#include <norvcmsg/Mutex.h>

namespace Norvane {

void Mutex::lock() {
    m_mutex.lock();
}

void Mutex::unlock() {
    m_mutex.unlock();
}

bool Mutex::try_lock() {
    return m_mutex.try_lock();
}

Synchronized::Synchronized(Mutex& mutex) : Synchronized(&mutex) {}

Synchronized::Synchronized(Mutex* mutex) : m_mutex(mutex) {
    if (m_mutex != nullptr) {
        m_mutex->lock();
    }
}

Synchronized::~Synchronized() {
    if (m_mutex != nullptr) {
        m_mutex->unlock();
    }
}

} // namespace Norvane
