#include "zv-thread.h"

#include <cstdint>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

const int kBackgroundNice = 10;

// The thread's own object while its worker runs, so a worker can recognise itself.
thread_local ZvThread* t_currentThread = nullptr;

void TerminateSignalHandler(int) {
    pthread_exit(nullptr);
}

// Installed when the module loads, before any worker can be terminated.
const bool g_terminateHandlerInstalled = (ZvThread::InstallTerminateHandler(), true);

void AdjustPriority(int step, bool toMaximum) {
    int policy = 0;
    sched_param param{};
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0)
        return;
    if (toMaximum) {
        const int maximum = sched_get_priority_max(policy);
        if (maximum < 0)
            return;
        param.sched_priority = maximum - 1;
    } else {
        param.sched_priority += step;
    }
    pthread_setschedparam(pthread_self(), policy, &param);
}

struct FreeThreadStart {
    sem_t started;
    void (*fn)(void*);
    void* arg;
};

void* FreeThreadRoutine(void* p) {
    FreeThreadStart* start = static_cast<FreeThreadStart*>(p);
    void (*fn)(void*) = start->fn;
    void* arg = start->arg;
    sem_post(&start->started); // the creator's stack frame may go from here on
    fn(arg);
    return nullptr;
}

} // namespace

void ZvThread::InstallTerminateHandler() {
    struct sigaction action {};
    action.sa_handler = TerminateSignalHandler;
    action.sa_flags = 0;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

ZvThread::ZvThread()
    : m_handle(), m_running(false), m_worker(nullptr), m_arg(nullptr), m_manualAck(false),
      m_alive(false), m_exitCode(0) {
    (void)g_terminateHandlerInstalled;
}

ZvThread::~ZvThread() {
    // A terminated worker still runs its clean-up, which touches this object: let it.
    if (m_alive && !m_running)
        m_finish.Wait(1000);
    // A worker in its end section holds the lock until its last touch of this object.
    m_endLock.Enter();
    m_endLock.Leave();
}

bool ZvThread::Create(ZvThreadWorker worker, void* arg, unsigned flags) {
    m_alive = false;
    if (worker == nullptr)
        return false;
    m_worker = worker;
    m_arg = arg;
    m_exitCode = 0;
    m_start.Create(0);
    m_manualAck = (flags & kManualAck) != 0;
    m_alive = true;
    m_finish.Create(0);

    // The worker starts with Terminate's signal blocked and unblocks it once its clean-up is
    // registered, so an early Terminate still ends it through the clean-up.
    sigset_t terminate, previous;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &terminate, &previous);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const bool created = pthread_create(&m_handle, &attr, StartRoutine, this) == 0;
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (!created) {
        m_alive = false;
        return false;
    }
    m_running = true;
    return true;
}

void ZvThread::CancelCleanup(void* p) {
    ZvThread* self = static_cast<ZvThread*>(p);
    ZvCritLock lock(self->m_endLock);
    if (self->m_alive) {
        self->m_alive = false;
        self->m_running = false;
        self->m_finish.Post();
    }
}

void* ZvThread::StartRoutine(void* p) {
    ZvThread* self = static_cast<ZvThread*>(p);
    t_currentThread = self;
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGUSR1);
    pthread_cleanup_push(CancelCleanup, self);
    pthread_sigmask(SIG_UNBLOCK, &terminate, nullptr);
    self->m_alive = true;
    if (!self->m_manualAck)
        self->m_start.Post();
    self->m_worker(self, self->m_arg);

    // From here a late Terminate stays pending and dies with the thread.
    pthread_sigmask(SIG_BLOCK, &terminate, nullptr);
    pthread_cleanup_pop(0);

    t_currentThread = nullptr;
    self->m_endLock.Enter();
    const intptr_t code = self->m_exitCode;
    self->m_alive = false;
    self->m_running = false;
    self->m_finish.Post();
    self->m_endLock.Leave(); // last touch of the object
    return reinterpret_cast<void*>(code);
}

void ZvThread::AckThreadStarted() {
    m_start.Post();
}

bool ZvThread::WaitForThreadStart(unsigned ms) {
    if (!m_start.Wait(ms))
        return false;
    m_start.Post(); // the start stays observable to later waiters
    return true;
}

bool ZvThread::WaitForThreadFinish(unsigned ms) {
    if (!m_alive)
        return true;
    if (!m_finish.Wait(ms))
        return false;
    m_finish.Post(); // the end stays observable to later waiters
    m_running = false;
    return true;
}

void ZvThread::Terminate(unsigned) {
    if (!m_running)
        return;
    {
        // While the lock is held and alive is set, the worker has not passed its end section,
        // so the handle still names it.
        ZvCritLock lock(m_endLock);
        if (m_alive)
            pthread_kill(m_handle, SIGUSR1);
    }
    m_running = false;
}

bool ZvThread::IsCurrentThread() const {
    return t_currentThread == this;
}

void ZvThread::YieldExecution() {
    sched_yield();
}

void ZvThread::SetRealTimePriority() {
    AdjustPriority(0, true);
}

void ZvThread::SetAboveNormalPriority() {
    AdjustPriority(1, false);
}

void ZvThread::SetHighPriority() {
    AdjustPriority(2, false);
}

void ZvThread::SetBackgroundPriority() {
    // On Linux the nice value is per thread, addressed by its thread id.
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kBackgroundNice);
}

bool ZvThreadStartFreeThread(void (*fn)(void*), void* arg) {
    FreeThreadStart start;
    start.fn = fn;
    start.arg = arg;
    sem_init(&start.started, 0, 0);
    pthread_t handle;
    if (pthread_create(&handle, nullptr, FreeThreadRoutine, &start) != 0) {
        sem_destroy(&start.started);
        return false;
    }
    pthread_detach(handle);
    while (sem_wait(&start.started) != 0) {
    }
    sem_destroy(&start.started);
    return true;
}
