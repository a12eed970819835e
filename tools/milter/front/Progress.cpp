#include "front/Progress.h"

#include <algorithm>
#include <exception>
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

Progress::Task::Task(Progress& progress, std::function<void()> tell, Clock::duration allowed)
    : m_progress(progress),
      m_tell(std::move(tell)),
      m_counts(Clock::now() + allowed),
      m_next(Clock::now() + progress.m_every) {
    const std::lock_guard<std::mutex> guard(m_progress.m_mutex);
    m_place = m_progress.m_tasks.insert(m_progress.m_tasks.end(), this);
}

Progress::Task::~Task() {
    {
        const std::lock_guard<std::mutex> guard(m_progress.m_mutex);
        m_progress.m_tasks.erase(m_place);
    }
    // Without the lock: it may take as long as the MTA does not read.
    if (m_telling.joinable())
        m_telling.join();
}

void Progress::Task::tellFrom(Clock::time_point now) {
    // The one before has told already, and ends at once.
    if (m_telling.joinable())
        m_telling.join();
    m_next = now + m_progress.m_every;
    m_isTelling = true;
    try {
        m_telling = std::thread([this] {
            m_tell();
            m_isTelling = false;
        });
    } catch (const std::exception&) {
        // There is no room or no memory for a thread: the next time, perhaps.
        m_isTelling = false;
    }
}

Progress::Clock::duration Progress::longest() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    const Clock::time_point now = Clock::now();
    Clock::duration longest = Clock::duration::zero();
    for (const Task* task : m_tasks)
        longest = std::max(longest, now - task->m_counts);
    return longest;
}

void Progress::run() {
    std::unique_lock<std::mutex> guard(m_mutex);
    while (!m_ending) {
        // Most messages are done long before: looking after a fixed time needs no waking when a task begins.
        m_changed.wait_for(guard, m_every / 4);
        const Clock::time_point now = Clock::now();
        for (Task* task : m_tasks) {
            if (task->m_next <= now && !task->m_isTelling)
                task->tellFrom(now);
        }
    }
}

} // namespace norvmilter
