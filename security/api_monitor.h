// The readers/writer monitor over the library handle and the symbol table, and the shim's checks.
//
// Writers (init, terminate) exclude everybody and are preferred over new readers (calls). A thread
// that holds the write lock never waits for another lock: it is told so instead. A thread must
// not ask for a second read lock while it holds one: a writer that queued in between waits for the
// first and keeps out the second.
#pragma once

#include <pthread.h>

enum tpk_bool : int { TPK_False = 0, TPK_True = 1 };
enum monitor_lock : int { Mon_NoLock = 0, Mon_ReadLocked = 1, Mon_WriteLocked = 2 };

// A monitor lives for the whole process; nothing destroys it. The members m_* are guarded by
// `mutex`, which is held for a few instructions only: a lock is a value of m_lock_type, not a held
// mutex.
struct api_monitor {
    pthread_mutex_t mutex{};
    pthread_cond_t wake{};     // the lock became free, or a queued writer gave up
    pthread_cond_t spare{};    // created, never waited on
    int m_num_readers = 0;     // inside
    int m_queued_writers = 0;  // waiting; new readers let them go first
    int m_lock_type = Mon_NoLock;
    int m_initialized = TPK_False;
    pthread_t writer{};  // meaningful while write-locked
};

// The shim's one monitor; built by molbatOnceInit.
extern api_monitor api_mon;

// Creates the primitives; m_initialized stays TPK_False when one can't be made.
void monitor_init(api_monitor* monitor);

enum class lock_result { taken, not_taken, own_writer };

// Returns not_taken when a wait failed: the caller goes on and must not release. A lock asked for
// by the thread that holds the write lock is own_writer: the caller must neither go on nor release.
lock_result monitor_write_lock(api_monitor* monitor);
lock_result monitor_read_lock(api_monitor* monitor);
// Gives back a lock of either kind. Requires: the lock's result was `taken`.
void monitor_release(api_monitor* monitor);

// Ends the process with the expression's text when it does not hold, in every kind of build.
void at_check(bool holds, const char* expression, const char* function = __builtin_FUNCTION());

// The write lock for a scope; when a wait failed the scope runs without it.
class write_lock_guard {
  public:
    explicit write_lock_guard(api_monitor* monitor)
        : monitor_(monitor), result_(monitor_write_lock(monitor)) {}
    ~write_lock_guard() {
        if (result_ == lock_result::taken) {
            monitor_release(monitor_);
        }
    }
    write_lock_guard(const write_lock_guard&) = delete;
    write_lock_guard& operator=(const write_lock_guard&) = delete;
    write_lock_guard(write_lock_guard&&) = delete;
    write_lock_guard& operator=(write_lock_guard&&) = delete;

    // Whether this thread is inside a write lock already.
    [[nodiscard]] bool refused() const { return result_ == lock_result::own_writer; }

  private:
    api_monitor* monitor_;
    lock_result result_;
};
