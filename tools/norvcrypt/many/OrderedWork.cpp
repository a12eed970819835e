#include "many/OrderedWork.h"
#include "files/Interrupts.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <sched.h>
#include <thread>
#include <utility>
#include <vector>

namespace norvcrypt {

namespace {

/// So many pieces for each thread may be begun or done and not told yet. More would keep no thread busier, unless one piece
/// takes as long as this many others.
constexpr std::size_t aheadOfOthers = 16;

class Work {
public:
    Work(std::size_t count, unsigned int threads, const std::function<Report(std::size_t)>& work,
         const std::function<void(const Report&)>& tell)
        : m_count(count),
          m_work(work),
          m_tell(tell),
          m_waiting(threads * aheadOfOthers) {}

    /// What one thread does.
    void takePart() noexcept {
        std::unique_lock lock(m_mutex);
        try {
            while (!m_failure && m_begun != m_count) {
                if (m_begun - m_told == m_waiting.size()) {
                    m_room.wait(lock);
                    continue;
                }
                const std::size_t at = m_begun++;
                lock.unlock();
                Report report = m_work(at);
                lock.lock();
                m_waiting[at % m_waiting.size()] = std::move(report);
                tellThoseInOrder();
            }
        } catch (...) {
            if (!lock.owns_lock())
                lock.lock();
            if (!m_failure)
                m_failure = std::current_exception();
        }
        m_room.notify_all();
    }

    void throwFailure() const {
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

private:
    void tellThoseInOrder() {
        while (std::optional<Report> next = std::exchange(m_waiting[m_told % m_waiting.size()], std::nullopt)) {
            if (!m_failure)
                m_tell(*next);
            ++m_told;
            m_room.notify_all();
        }
    }

    const std::size_t m_count;
    const std::function<Report(std::size_t)>& m_work;
    const std::function<void(const Report&)>& m_tell;

    std::mutex m_mutex; ///< guards what follows
    std::condition_variable m_room;
    std::vector<std::optional<Report>> m_waiting; ///< by number, as a ring
    std::size_t m_begun = 0;
    std::size_t m_told = 0;
    std::exception_ptr m_failure;
};

/// Whether there was any thread to do it.
bool doInThreads(Work& work, unsigned int count) {
    SharedInterrupts interrupts;
    std::atomic<unsigned int> alive{1}; // this one, until all have begun
    std::vector<std::thread> threads;
    threads.reserve(count);
    try {
        while (threads.size() != count) {
            ++alive;
            threads.emplace_back([&] {
                work.takePart();
                if (--alive == 0)
                    interrupts.wake();
            });
        }
    } catch (const std::exception&) {
        --alive; // there can be no more, or there is no memory for more
    }
    if (--alive != 0)
        interrupts.wait();
    for (std::thread& thread : threads)
        thread.join();
    return !threads.empty();
}

} // namespace

void doInOrder(std::size_t count, unsigned int threads, const std::function<Report(std::size_t)>& work,
               const std::function<void(const Report&)>& tell) {
    const auto useful = static_cast<unsigned int>(std::min<std::size_t>(threads, count));
    Work all(count, std::max(useful, 1U), work, tell);
    if (useful <= 1 || !doInThreads(all, useful))
        all.takePart();
    all.throwFailure();
}

unsigned int availableCores() {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    // More cores than the set has room for: the system does not tell which, and the library how many.
    if (sched_getaffinity(0, sizeof cores, &cores) != 0)
        return std::max(std::thread::hardware_concurrency(), 1U);
    return static_cast<unsigned int>(std::max(CPU_COUNT(&cores), 1));
}

} // namespace norvcrypt
