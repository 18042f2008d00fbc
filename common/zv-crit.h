// ZvCrit: a critical section, one recursive mutex, so its owner may enter again.
//
// Threads: Enter, TryEnter and Leave from any thread; Leave only by the thread that entered.
#pragma once

#include <pthread.h>

class ZvCrit {
public:
    ZvCrit();
    ~ZvCrit();
    ZvCrit(const ZvCrit&) = delete;
    ZvCrit& operator=(const ZvCrit&) = delete;

    void Enter();
    bool TryEnter();
    void Leave();

private:
    pthread_mutex_t m_mutex;
};

// Holds a ZvCrit for the lifetime of the scope.
class ZvCritLock {
public:
    explicit ZvCritLock(ZvCrit& crit) : m_crit(crit) { m_crit.Enter(); }
    ~ZvCritLock() { m_crit.Leave(); }
    ZvCritLock(const ZvCritLock&) = delete;
    ZvCritLock& operator=(const ZvCritLock&) = delete;

private:
    ZvCrit& m_crit;
};
