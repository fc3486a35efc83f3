#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ql {

// The file-copy threads. The walker hands each regular file over as a task and moves on; the
// queue is bounded, so a walker far ahead of the copies waits (memory stays flat). Each task
// runs with its worker's index (1-based: slot 0 of the activity board is the walker).
class CopyWorkerPool {
public:
    using Task = std::function<void(int worker)>;

    CopyWorkerPool(int workers, std::size_t queueLimit, std::function<void(int worker)> onWorkerStart = {});
    ~CopyWorkerPool();
    CopyWorkerPool(const CopyWorkerPool&) = delete;
    CopyWorkerPool& operator=(const CopyWorkerPool&) = delete;

    int workers() const { return static_cast<int>(threads_.size()); }
    // Queues a task, waiting while the queue is full. Without workers the task runs here, now.
    void submit(Task task);
    // Waits until every queued task has finished.
    void drain();

private:
    void run(int worker);

    std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable hasWork_;
    std::condition_variable hasRoom_;
    std::condition_variable idle_;
    std::deque<Task> queue_;
    std::size_t running_ = 0;
    bool closing_ = false;
    std::function<void(int)> onWorkerStart_;
    std::vector<std::thread> threads_;
};

}  // namespace ql
