// ZvThread: a detached worker thread with a start handshake, a timed finish wait and a way to stop
// it from outside.
//
// Threads:
// - Create, WaitForThreadStart, WaitForThreadFinish and Terminate are called by the controlling
//   thread (one controller per object at a time).
// - AckThreadStarted is called by the worker itself, when it was created with kManualAck.
// - SetRealTimePriority, SetAboveNormalPriority, SetHighPriority and YieldExecution act on the
//   CALLING thread, whichever object they are called through.
// - IsRunning, IsAlive and IsCurrentThread may be called from any thread; the flags are advisory,
//   only the semaphores order events.
//
// Terminate sends SIGUSR1 to the worker; a process-wide handler, installed when this module is
// loaded, ends the receiving thread with pthread_exit. The worker is unwound from wherever it is:
// destructors of its stack objects run, but locks it holds stay held. The unwinding cannot cross
// a noexcept function (destructors included): a worker terminated inside one ends the process, so
// workers that may be terminated should block in plain system calls, not in such functions.
#pragma once

#include <atomic>
#include <pthread.h>

#include "zv-crit.h"
#include "zv-sema.h"

class ZvThread;
typedef void (*ZvThreadWorker)(ZvThread* thread, void* arg);

class ZvThread {
public:
    // Creation flag: the worker acknowledges its start itself through AckThreadStarted.
    static constexpr unsigned kManualAck = 1;
    static constexpr unsigned kWaitForever = 0xFFFFFFFFu;

    ZvThread();
    // Destroys the semaphores; neither stops nor joins the thread.
    ~ZvThread();
    ZvThread(const ZvThread&) = delete;
    ZvThread& operator=(const ZvThread&) = delete;

    // Starts the worker on a new detached thread; true when it runs. A null worker gives false.
    bool Create(ZvThreadWorker worker, void* arg, unsigned flags = 0);
    // Runs (object->*Member)() on a new thread and waits until it runs; true when it does.
    template <class T, void (T::*Member)()>
    bool StartMember(T* object) {
        return Create(&InvokeMember<T, Member>, object) && WaitForThreadStart(kWaitForever);
    }
    void AckThreadStarted();
    // Both accept kWaitForever; true when the event happened. A start or finish, once seen,
    // stays observable to every later call.
    bool WaitForThreadStart(unsigned ms);
    bool WaitForThreadFinish(unsigned ms);
    // Ends the worker wherever it is (ms is accepted and ignored).
    void Terminate(unsigned ms = 0);

    bool IsRunning() const { return m_running; }
    bool IsAlive() const { return m_alive; }
    // True on the worker thread of this object while it is alive.
    bool IsCurrentThread() const;
    void SetExitCode(int code) { m_exitCode = code; }

    static void YieldExecution();
    static void SetRealTimePriority();
    static void SetAboveNormalPriority();
    static void SetHighPriority();
    // The calling thread yields to the others (a higher nice value): for work in the background
    // that must not slow a time-critical thread, such as syncing files.
    static void SetBackgroundPriority();

    // Installs the SIGUSR1 handler used by Terminate; done once at load, idempotent.
    static void InstallTerminateHandler();

private:
    template <class T, void (T::*Member)()>
    static void InvokeMember(ZvThread*, void* object) {
        (static_cast<T*>(object)->*Member)();
    }

    static void* StartRoutine(void* self);
    static void CancelCleanup(void* self);

    pthread_t m_handle;
    ZvSema m_finish;
    std::atomic<bool> m_running;
    ZvThreadWorker m_worker;
    void* m_arg;
    ZvSema m_start;
    bool m_manualAck;
    std::atomic<bool> m_alive;
    int m_exitCode;
    // Orders the worker's end against Terminate and the destructor, so that neither touches a
    // thread or an object that has gone.
    ZvCrit m_endLock;
};

// Starts fn(arg) on a detached thread without an object; returns once the thread has taken its
// function and argument. False when the thread cannot be created.
bool ZvThreadStartFreeThread(void (*fn)(void*), void* arg);
