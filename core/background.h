// Work that would make the loop wait, done by a thread of its own.
//
// A background thread takes one job after the other, in the order in which they were handed over,
// and starts with the first one. A job owns copies of all that it needs: while it runs it touches
// no connection, context or registry. Its result comes back to the loop, where finish() may.
#pragma once

#include <memory>

struct background_job {
    background_job() = default;
    background_job(const background_job&) = delete;
    background_job& operator=(const background_job&) = delete;
    background_job(background_job&&) = delete;
    background_job& operator=(background_job&&) = delete;
    virtual ~background_job() = default;

    virtual void run() = 0;     // on the thread
    virtual void finish() = 0;  // on the loop, in a later pass or in drain(); then it is freed
};

class background_thread {
  public:
    // Starts nothing yet.
    background_thread();
    background_thread(const background_thread&) = delete;
    background_thread& operator=(const background_thread&) = delete;
    background_thread(background_thread&&) = delete;
    background_thread& operator=(background_thread&&) = delete;
    // What has not run is dropped; a job that is running goes on by itself and is then dropped.
    ~background_thread();

    // Hands a job over. False, and the job is freed, when no thread can be started.
    [[nodiscard]] bool submit(std::unique_ptr<background_job> job);

    // Finishes the jobs whose results are there, without waiting.
    void collect();

    // Waits until every job has run, and finishes them all.
    void drain();

  private:
    struct shared_state;
    std::shared_ptr<shared_state> state_;  // the thread holds it, too
};

// Finishes what is ready on all threads that exist; the loop calls it once a pass. A result wakes
// the loop's wait.
void finish_background_jobs();
