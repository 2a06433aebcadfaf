#include "security/api_monitor.h"

#include <cstdio>
#include <cstdlib>

api_monitor api_mon;

namespace {

// Requires: the mutex is held, so that type and owner belong together.
bool held_by_caller(const api_monitor& monitor) {
    return monitor.m_lock_type == Mon_WriteLocked &&
           pthread_equal(monitor.writer, pthread_self()) != 0;
}

}  // namespace

void at_check(bool holds, const char* expression, const char* function) {
    if (!holds) {
        // Not assert(): releases are built without it, and a broken lock must not go on.
        (void)std::fprintf(stderr, "Assertion failed: %s, file api, function %s\n", expression,
                           function);
        std::abort();
    }
}

void monitor_init(api_monitor* monitor) {
    if (pthread_mutex_init(&monitor->mutex, nullptr) != 0) {
        return;
    }
    if (pthread_cond_init(&monitor->wake, nullptr) != 0) {
        (void)pthread_mutex_destroy(&monitor->mutex);
        return;
    }
    if (pthread_cond_init(&monitor->spare, nullptr) != 0) {
        (void)pthread_cond_destroy(&monitor->wake);
        (void)pthread_mutex_destroy(&monitor->mutex);
        return;
    }
    monitor->m_num_readers = 0;
    monitor->m_lock_type = Mon_NoLock;
    monitor->m_queued_writers = 0;
    monitor->m_initialized = TPK_True;
}

lock_result monitor_write_lock(api_monitor* monitor) {
    at_check(monitor->m_initialized == TPK_True, "(&api_mon)->m_initialized == TPK_True");
    (void)pthread_mutex_lock(&monitor->mutex);
    if (held_by_caller(*monitor)) {
        (void)pthread_mutex_unlock(&monitor->mutex);
        return lock_result::own_writer;
    }
    ++monitor->m_queued_writers;
    while (monitor->m_lock_type != Mon_NoLock) {
        // No wait fails on a sound system; going on unguarded beats a daemon that serves nobody.
        if (pthread_cond_wait(&monitor->wake, &monitor->mutex) != 0) {
            --monitor->m_queued_writers;
            (void)pthread_cond_broadcast(&monitor->wake);  // readers may have waited for this one
            (void)pthread_mutex_unlock(&monitor->mutex);
            return lock_result::not_taken;
        }
    }
    --monitor->m_queued_writers;
    at_check(monitor->m_lock_type == Mon_NoLock, "(&api_mon)->m_lock_type == Mon_NoLock");
    at_check(monitor->m_num_readers == 0, "(&api_mon)->m_num_readers == 0");
    monitor->m_lock_type = Mon_WriteLocked;
    monitor->writer = pthread_self();
    (void)pthread_mutex_unlock(&monitor->mutex);
    return lock_result::taken;
}

lock_result monitor_read_lock(api_monitor* monitor) {
    at_check(monitor->m_initialized == TPK_True, "(&api_mon)->m_initialized == TPK_True");
    (void)pthread_mutex_lock(&monitor->mutex);
    at_check(monitor->m_queued_writers >= 0, "(&api_mon)->m_queued_writers >= 0");
    if (held_by_caller(*monitor)) {
        (void)pthread_mutex_unlock(&monitor->mutex);
        return lock_result::own_writer;
    }
    // A writer that waits goes first: calls come all the time and would keep it out for ever.
    while (monitor->m_lock_type == Mon_WriteLocked || monitor->m_queued_writers > 0) {
        if (pthread_cond_wait(&monitor->wake, &monitor->mutex) != 0) {
            (void)pthread_mutex_unlock(&monitor->mutex);
            return lock_result::not_taken;
        }
    }
    at_check(monitor->m_lock_type != Mon_WriteLocked, "(&api_mon)->m_lock_type != Mon_WriteLocked");
    at_check(monitor->m_queued_writers == 0, "(&api_mon)->m_queued_writers == 0");
    monitor->m_lock_type = Mon_ReadLocked;
    ++monitor->m_num_readers;
    (void)pthread_mutex_unlock(&monitor->mutex);
    return lock_result::taken;
}

void monitor_release(api_monitor* monitor) {
    at_check(monitor->m_initialized == TPK_True, "(&api_mon)->m_initialized == TPK_True");
    (void)pthread_mutex_lock(&monitor->mutex);
    at_check(monitor->m_lock_type != Mon_NoLock, "(&api_mon)->m_lock_type != Mon_NoLock");
    if (monitor->m_lock_type == Mon_ReadLocked) {
        at_check(monitor->m_num_readers > 0, "(&api_mon)->m_num_readers > 0");
        if (--monitor->m_num_readers == 0) {
            monitor->m_lock_type = Mon_NoLock;
        }
    } else {
        at_check(monitor->m_num_readers == 0, "(&api_mon)->m_num_readers == 0");
        monitor->m_lock_type = Mon_NoLock;
    }
    if (monitor->m_lock_type == Mon_NoLock) {
        // All of them: readers and writers wait for the same condition and decide for themselves.
        (void)pthread_cond_broadcast(&monitor->wake);
    }
    (void)pthread_mutex_unlock(&monitor->mutex);
}
