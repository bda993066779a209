// Many pictures: where they are, and judging them on several threads in flat memory.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace selvio::app {

/// A file to judge, or a folder that cannot be read.
struct FoundPicture {
    std::string path;
    std::string problem;  ///< empty: none
};

/// Walks through files and folders. A file is taken as it is; of a folder the JPEG and PNG files in it and in the
/// folders below it, known by their extensions, in the order of their names. Links to folders are followed only where
/// they are named themselves. Keeps no more than the names in the folders that it stands in.
class PictureWalk {
public:
    explicit PictureWalk(std::vector<std::string> paths);
    /// Nothing at the end.
    std::optional<FoundPicture> next();

private:
    void enter(const std::string& folder);

    std::vector<std::string> paths_;                         ///< those to come, the next one last
    std::vector<std::filesystem::directory_entry> entries_;  ///< of the folders stood in, the next one last
    std::optional<FoundPicture> problem_;
};

/// A queue between threads that holds at most so many items. Any thread.
template <typename Item>
class BoundedQueue {
public:
    explicit BoundedQueue(std::size_t most) : most_(most) {}

    /// Waits for room. False, and nothing happens, once the queue is closed.
    bool push(Item item) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return closed_ || items_.size() < most_; });
        if (closed_) return false;
        items_.push_back(std::move(item));
        changed_.notify_all();
        return true;
    }
    /// Waits for an item; nothing once the queue is closed and empty.
    std::optional<Item> pop() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return closed_ || !items_.empty(); });
        if (items_.empty()) return std::nullopt;
        std::optional<Item> item(std::move(items_.front()));
        items_.pop_front();
        changed_.notify_all();
        return item;
    }
    void close() {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        changed_.notify_all();
    }

private:
    const std::size_t most_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> items_;  // guarded by mutex_
    bool closed_ = false;     // guarded by mutex_
};

/// Works on the items that `next` gives, on so many threads, and hands the answers to `take` in the order of the items:
/// each as soon as it and all before it are there, whether or not there is a next item yet. `next` is called on this
/// thread, `take` on another one; `take` returns false to give up. Few items are held at a time, however many there
/// are. `makeWorker` makes a worker for each thread; a worker turns an item into an answer and does not throw.
template <typename Item, typename Answer>
void workInOrder(unsigned threads, const std::function<std::optional<Item>()>& next,
                 const std::function<std::function<Answer(const Item&)>()>& makeWorker,
                 const std::function<bool(Answer)>& take) {
    using Worker = std::function<Answer(const Item&)>;
    BoundedQueue<std::packaged_task<Answer(const Worker&)>> tasks(threads);
    BoundedQueue<std::future<Answer>> answers(std::size_t{4} * threads);
    const auto work = [&] {
        const Worker worker = makeWorker();
        while (auto task = tasks.pop()) (*task)(worker);
    };
    std::vector<std::jthread> workers;
    for (unsigned i = 0; i < threads; ++i) workers.emplace_back(work);
    std::jthread taker([&] {
        while (auto answer = answers.pop()) {
            if (!take(answer->get())) return answers.close();
        }
    });
    const std::shared_ptr<void> atEnd(nullptr, [&](void*) {  // even if `next` throws
        answers.close();
        tasks.close();
    });
    while (auto item = next()) {
        std::packaged_task<Answer(const Worker&)> task(
            [item = std::move(*item)](const Worker& worker) { return worker(item); });
        if (!answers.push(task.get_future()) || !tasks.push(std::move(task))) break;
    }
}

/// How many processors this process may use.
[[nodiscard]] unsigned availableCores();

/// One line on standard error that shows how far the work has come, at what rate, and how long it will still take.
/// One thread.
class Progress {
public:
    /// `total`: how much there is to do; 0 shows nothing. `left`: the word behind the time that is left.
    Progress(std::size_t total, std::string left);
    /// Makes room for other output; the next `show` draws the line again.
    void hide();
    /// A few times a second at most.
    void show(std::size_t done);
    [[nodiscard]] double seconds() const;

private:
    const std::size_t total_;
    const std::string left_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point drawn_{};
    bool visible_ = false;
};

}  // namespace selvio::app
