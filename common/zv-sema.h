// ZvSema: a process-private counting semaphore with untimed and timed waits.
//
// Threads: after Create, Wait and Post may be called from any thread at the same time. Create and
// Destroy must not run while another thread waits on or posts the semaphore.
#pragma once

#include <semaphore.h>
#include <sys/time.h>
#include <time.h>

class ZvSema {
public:
    static constexpr unsigned kWaitForever = 0xFFFFFFFFu;

    ZvSema();
    ~ZvSema();
    ZvSema(const ZvSema&) = delete;
    ZvSema& operator=(const ZvSema&) = delete;

    // Destroys an earlier semaphore of this object, then initialises one with the count.
    bool Create(unsigned initialCount);
    void Destroy();
    bool IsCreated() const { return m_created; }

    // Blocks until the semaphore is taken; false when never created or the wait failed.
    bool Wait();
    // The same, giving up after ms milliseconds (false on time-out). The deadline is absolute
    // wall-clock time, so a clock change during the wait shortens or lengthens it.
    bool Wait(unsigned ms);
    // A direct post; false when never created.
    bool Post();

    // The absolute deadline ms milliseconds after the wall-clock time now.
    static timespec Deadline(const timeval& now, unsigned ms);

private:
    bool m_created;
    sem_t m_sem;
    sem_t* m_pSem;
};
