#include "core/background.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "core/poll_set.h"

using job_queue = std::deque<std::unique_ptr<background_job>>;

struct background_thread::shared_state {
    std::mutex lock;
    std::condition_variable has_work;
    std::condition_variable has_result;
    job_queue waiting;
    job_queue done;
    bool started = false;
    bool running = false;  // a job is neither waiting nor done
    bool ending = false;

    void work();
    static void* thread_main(void* argument);
};

namespace {

// All objects of the class; the loop's thread alone uses it.
std::vector<background_thread*> threads;

// Whether any thread may have something for the loop: spares the passes without any the locks.
std::atomic<bool> results_ready = false;

// Signals are the main thread's: its handlers wake the wait.
class signals_blocked {
  public:
    signals_blocked() {
        sigset_t all;
        sigfillset(&all);
        (void)pthread_sigmask(SIG_SETMASK, &all, &old_);
    }
    signals_blocked(const signals_blocked&) = delete;
    signals_blocked& operator=(const signals_blocked&) = delete;
    signals_blocked(signals_blocked&&) = delete;
    signals_blocked& operator=(signals_blocked&&) = delete;
    ~signals_blocked() { (void)pthread_sigmask(SIG_SETMASK, &old_, nullptr); }

  private:
    sigset_t old_{};
};

}  // namespace

void background_thread::shared_state::work() {
    std::unique_lock held(lock);
    for (;;) {
        has_work.wait(held, [this] { return ending || !waiting.empty(); });
        if (ending) {
            return;
        }
        std::unique_ptr<background_job> job = std::move(waiting.front());
        waiting.pop_front();
        running = true;
        held.unlock();
        job->run();
        held.lock();
        running = false;
        if (ending) {
            return;
        }
        done.push_back(std::move(job));
        results_ready = true;
        has_result.notify_all();
        wake_poll_set();
    }
}

void* background_thread::shared_state::thread_main(void* argument) {
    auto* handed_over = static_cast<std::shared_ptr<shared_state>*>(argument);
    const std::shared_ptr<shared_state> state = std::move(*handed_over);
    delete handed_over;
    state->work();
    return nullptr;
}

background_thread::background_thread() : state_(std::make_shared<shared_state>()) {
    threads.push_back(this);
}

background_thread::~background_thread() {
    threads.erase(std::remove(threads.begin(), threads.end(), this), threads.end());
    job_queue dropped;
    const std::lock_guard held(state_->lock);
    state_->ending = true;
    dropped.swap(state_->waiting);
    state_->has_work.notify_all();
}

bool background_thread::submit(std::unique_ptr<background_job> job) {
    const std::lock_guard held(state_->lock);
    if (!state_->started) {
        const signals_blocked blocked;
        auto* for_thread = new std::shared_ptr<shared_state>(state_);
        pthread_t id{};
        if (pthread_create(&id, nullptr, shared_state::thread_main, for_thread) != 0) {
            delete for_thread;
            return false;
        }
        (void)pthread_detach(id);
        state_->started = true;
    }
    state_->waiting.push_back(std::move(job));
    state_->has_work.notify_one();
    return true;
}

void background_thread::collect() {
    job_queue finished;
    {
        const std::lock_guard held(state_->lock);
        finished.swap(state_->done);
    }
    for (const std::unique_ptr<background_job>& job : finished) {
        job->finish();
    }
}

void background_thread::drain() {
    for (;;) {
        {
            std::unique_lock held(state_->lock);
            state_->has_result.wait(held, [this] {
                return !state_->done.empty() || (state_->waiting.empty() && !state_->running);
            });
            if (state_->done.empty()) {
                return;
            }
        }
        collect();  // which may hand over further jobs
    }
}

void finish_background_jobs() {
    if (!results_ready.exchange(false)) {
        return;
    }
    // A job that finishes may make or end a thread.
    const std::vector<background_thread*> now = threads;
    for (background_thread* thread : now) {
        if (std::find(threads.begin(), threads.end(), thread) != threads.end()) {
            thread->collect();
        }
    }
}
