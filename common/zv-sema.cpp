#include "zv-sema.h"

#include <cerrno>

ZvSema::ZvSema() : m_created(false), m_sem(), m_pSem(&m_sem) {}

ZvSema::~ZvSema() {
    Destroy();
}

bool ZvSema::Create(unsigned initialCount) {
    Destroy();
    m_pSem = &m_sem;
    m_created = sem_init(m_pSem, 0, initialCount) == 0;
    return m_created;
}

void ZvSema::Destroy() {
    if (m_created) {
        sem_destroy(m_pSem);
        m_created = false;
    }
}

bool ZvSema::Wait() {
    if (!m_created)
        return false;
    int result;
    do {
        result = sem_wait(m_pSem);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

timespec ZvSema::Deadline(const timeval& now, unsigned ms) {
    long long seconds = now.tv_sec;
    long long us = now.tv_usec;
    if (ms >= 1000) {
        seconds += ms / 1000;
        ms %= 1000;
    }
    us += static_cast<long long>(ms) * 1000;
    if (us > 999999) {
        seconds += 1;
        us -= 1000000;
    }
    timespec deadline;
    deadline.tv_sec = static_cast<time_t>(seconds);
    deadline.tv_nsec = static_cast<long>(us * 1000);
    return deadline;
}

bool ZvSema::Wait(unsigned ms) {
    if (!m_created)
        return false;
    if (ms == kWaitForever)
        return Wait();
    timeval now;
    gettimeofday(&now, nullptr);
    const timespec deadline = Deadline(now, ms);
    int result;
    do {
        result = sem_timedwait(m_pSem, &deadline);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool ZvSema::Post() {
    return m_created && sem_post(m_pSem) == 0;
}
