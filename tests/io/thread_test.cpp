// Semaphores, the recursive lock and worker threads, on real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unistd.h>

#include "zv-crit.h"
#include "zv-sema.h"
#include "zv-thread.h"
#include "zv-time.h"

TEST(Sema, TimedWaitsCountAndTimeOut) {
    timespec d = ZvSema::Deadline(timeval{10, 600000}, 1500); // microseconds carry into seconds
    EXPECT_EQ(12, d.tv_sec);
    EXPECT_EQ(100000000, d.tv_nsec);
    ZvSema sema;
    ASSERT_TRUE(sema.Create(2));
    EXPECT_TRUE(sema.Wait(0));
    EXPECT_TRUE(sema.Wait());
    const unsigned start = ZvTime::GetMsTickTime();
    EXPECT_FALSE(sema.Wait(100));
    EXPECT_GE(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 90u);
}

TEST(Crit, OwnerReentersOthersWait) {
    ZvCrit crit;
    auto otherThreadGetsIt = [&] {
        bool got = false;
        std::thread([&] {
            if ((got = crit.TryEnter()))
                crit.Leave();
        }).join();
        return got;
    };
    crit.Enter();
    crit.Enter(); // a plain mutex would deadlock here
    crit.Leave();
    EXPECT_FALSE(otherThreadGetsIt()); // still held once
    crit.Leave();
    EXPECT_TRUE(otherThreadGetsIt());
}

namespace {

std::atomic<int> g_unwound{0};
std::atomic<bool> g_passed{false}, g_readReturned{false};

struct Unwound {
    ~Unwound() { ++g_unwound; }
};

} // namespace

// One object runs three workers in turn: gated, acknowledging itself, and stuck for good.
TEST(Thread, StartFinishAndTerminateHandshakes) {
    ZvThread thread;
    EXPECT_FALSE(thread.Create(nullptr, nullptr, 0));
    ZvSema gate;
    ASSERT_TRUE(gate.Create(0));
    auto waitAtGate = [](ZvThread*, void* p) {
        static_cast<ZvSema*>(p)->Wait();
        g_passed = true;
    };
    ASSERT_TRUE(thread.Create(waitAtGate, &gate, 0));
    EXPECT_TRUE(thread.WaitForThreadStart(2000));
    EXPECT_FALSE(thread.WaitForThreadFinish(50));
    gate.Post();
    EXPECT_TRUE(thread.WaitForThreadFinish(ZvThread::kWaitForever));
    EXPECT_TRUE(g_passed);

    auto ackAfterGate = [](ZvThread* self, void* p) {
        static_cast<ZvSema*>(p)->Wait();
        self->AckThreadStarted();
    };
    ASSERT_TRUE(thread.Create(ackAfterGate, &gate, ZvThread::kManualAck));
    EXPECT_FALSE(thread.WaitForThreadStart(100));
    gate.Post();
    EXPECT_TRUE(thread.WaitForThreadStart(2000));
    EXPECT_TRUE(thread.WaitForThreadFinish(2000));

    // Terminate ends a worker blocked in a system call, unwinding its stack.
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    auto blockInRead = [](ZvThread*, void* p) {
        Unwound guard;
        char byte;
        (void)!read(*static_cast<int*>(p), &byte, 1); // never gets data
        g_readReturned = true;
    };
    ASSERT_TRUE(thread.Create(blockInRead, &pipeFds[0], 0));
    ASSERT_TRUE(thread.WaitForThreadStart(2000));
    ZvTime::Sleep(50); // let it reach the read
    thread.Terminate(0);
    EXPECT_TRUE(thread.WaitForThreadFinish(2000));
    EXPECT_FALSE(g_readReturned);
    EXPECT_EQ(1, g_unwound.load());
    close(pipeFds[0]);
    close(pipeFds[1]);
}
