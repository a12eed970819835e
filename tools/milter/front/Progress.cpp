#include "front/Progress.h"

#include <algorithm>
#include <utility>

namespace norvmilter {

Progress::Progress(Clock::duration every) : m_every(every), m_thread([this] { run(); }) {}

Progress::~Progress() {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

Progress::Task::Task(Progress& progress, std::function<void()> tell)
    : m_progress(progress),
      m_tell(std::move(tell)),
      m_begun(Clock::now()),
      m_next(m_begun + progress.m_every) {
    const std::lock_guard<std::mutex> guard(m_progress.m_mutex);
    m_place = m_progress.m_tasks.insert(m_progress.m_tasks.end(), this);
}

Progress::Task::~Task() {
    const std::lock_guard<std::mutex> guard(m_progress.m_mutex);
    m_progress.m_tasks.erase(m_place);
}

Progress::Clock::duration Progress::longest() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_tasks.empty() ? Clock::duration::zero() : Clock::now() - m_tasks.front()->m_begun;
}

void Progress::run() {
    std::unique_lock<std::mutex> guard(m_mutex);
    while (!m_ending) {
        // Most messages are done long before: looking after a fixed time needs no waking when a task begins.
        m_changed.wait_for(guard, m_every / 4);
        const Clock::time_point now = Clock::now();
        for (Task* task : m_tasks) {
            if (task->m_next > now)
                continue;
            task->m_tell();
            task->m_next = now + m_every;
        }
    }
}

} // namespace norvmilter
