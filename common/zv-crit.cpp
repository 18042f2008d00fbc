#include "zv-crit.h"

ZvCrit::ZvCrit() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

ZvCrit::~ZvCrit() {
    pthread_mutex_destroy(&m_mutex);
}

void ZvCrit::Enter() {
    pthread_mutex_lock(&m_mutex);
}

bool ZvCrit::TryEnter() {
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void ZvCrit::Leave() {
    pthread_mutex_unlock(&m_mutex);
}
