#include "qlcopy/CopyWorkerPool.h"

namespace ql {

CopyWorkerPool::CopyWorkerPool(int workers, std::size_t queueLimit, std::function<void(int)> onWorkerStart)
    : limit_(queueLimit == 0 ? 1 : queueLimit), onWorkerStart_(std::move(onWorkerStart)) {
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this, i] { run(i + 1); });
}

CopyWorkerPool::~CopyWorkerPool() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    hasWork_.notify_all();
    for (auto& t : threads_) t.join();
}

void CopyWorkerPool::submit(Task task) {
    if (threads_.empty()) {
        task(1);
        return;
    }
    std::unique_lock lock(mutex_);
    hasRoom_.wait(lock, [this] { return queue_.size() < limit_; });
    queue_.push_back(std::move(task));
    lock.unlock();
    hasWork_.notify_one();
}

void CopyWorkerPool::drain() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return queue_.empty() && running_ == 0; });
}

void CopyWorkerPool::run(int worker) {
    if (onWorkerStart_) onWorkerStart_(worker);
    for (;;) {
        Task task;
        {
            std::unique_lock lock(mutex_);
            hasWork_.wait(lock, [this] { return closing_ || !queue_.empty(); });
            if (queue_.empty()) return;
            task = std::move(queue_.front());
            queue_.pop_front();
            ++running_;
        }
        hasRoom_.notify_one();
        task(worker);
        {
            std::lock_guard lock(mutex_);
            --running_;
            if (queue_.empty() && running_ == 0) idle_.notify_all();
        }
    }
}

}  // namespace ql
