#include "zv-itf-serial.h"

#include <cerrno>
#include <cstdint>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "zv-time.h"

namespace {
// How long OnClose waits for the read thread before terminating it.
const unsigned kReadThreadFinishMs = 200;
// How often a watched port's DSR is looked at: one ioctl, also while data flows.
const unsigned kPeerCheckMs = 200;

// The check runs once per chunk read. The coarse clock is the kernel's last tick, read without
// touching the hardware: on a machine whose clock source is not readable from user space (HPET,
// as in many virtual machines) the precise clocks cost a system call per chunk.
unsigned CoarseMonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<unsigned>(static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
                                 static_cast<unsigned long long>(now.tv_nsec / 1000000));
}
} // namespace

ZvItfAsyncSerial::ZvItfAsyncSerial() = default;

ZvItfAsyncSerial::~ZvItfAsyncSerial() {
    OnClose();
    m_port.Close();
}

bool ZvItfAsyncSerial::OnOpen() {
    OnClose(); // one read thread per interface
    m_watchPeer = false;
    // A reader closed from its own handler may still be on its way out: the thread object is
    // reused below, so let it go first.
    if (!m_readThread.IsCurrentThread())
        m_readThread.WaitForThreadFinish(kReadThreadFinishMs);
    if (m_rxHandler == nullptr)
        return false; // the read thread would have nobody to hand data to
    const char* name = m_portName.c_str();
    bool opened = m_port.Open(name, m_speed, m_openFlags);
    if (!opened) {
        opened = m_port.Open(name, m_speed, m_openFlags);
    } else {
        // Configure, then open again: the second open starts from the settings just applied.
        m_port.SetTotalTimeout(m_totalTimeoutMs);
        opened = m_port.Open(name, m_speed, m_openFlags);
    }
    if (opened && m_port.SetTotalTimeout(m_totalTimeoutMs) &&
        m_readThread.Create(ReadThreadFunc, this, ZvThread::kManualAck)) {
        m_readThread.WaitForThreadStart(ZvThread::kWaitForever);
        return true;
    }
    OnClose();
    m_port.Close(); // also when the read thread never started
    return false;
}

void ZvItfAsyncSerial::WatchPeerReady(bool readyNow) {
    m_peerReady = readyNow;
    m_watchPeer = true;
}

void ZvItfAsyncSerial::OnClose() {
    m_watchPeer = false;
    bool reading = true;
    if (!m_reading.compare_exchange_strong(reading, false))
        return;
    if (m_readThread.IsCurrentThread()) {
        // Called from a handler: the reader is not inside a read, and ends on its return.
        m_port.Close();
        return;
    }
    m_port.InterruptReads(); // a reader waiting in the terminal returns at once
    // A handler in progress finishes its block first; the port closes only once the reader has
    // stopped, so it never reads from a closed (or reused) descriptor.
    if (!m_readThread.WaitForThreadFinish(kReadThreadFinishMs) && m_readThread.IsAlive()) {
        m_readThread.Terminate(0); // last resort: a handler that does not return
        ++m_readThreadTerminations;
        m_readThread.WaitForThreadFinish(kReadThreadFinishMs);
    }
    m_port.Close();
}

bool ZvItfAsyncSerial::Send(unsigned int count, unsigned char* data) {
    if (!m_port.Write(data, count))
        return false;
    m_bytesSent.fetch_add(count, std::memory_order_relaxed);
    return true;
}

void ZvItfAsyncSerial::ReadThreadFunc(ZvThread* thread, void* self) {
    ZvThread::SetAboveNormalPriority();
    ZvItfAsyncSerial* itf = static_cast<ZvItfAsyncSerial*>(self);
    itf->m_reading = true;
    thread->AckThreadStarted();
    itf->ReadLoop();
}

void ZvItfAsyncSerial::ReadLoop() {
    unsigned char buffer[kReadBlockSize];
    bool lastReadEmpty = false;
    unsigned lastEmptyTick = 0;
    const unsigned fastEmptyMs = m_totalTimeoutMs / 4;
    while (m_reading) {
        CheckPeerReady();
        unsigned got = 0;
        // Returns with what is there, or waits for it at most the terminal's time-out.
        const ZvSerial::ReadStatus status = m_port.ReadOnce(buffer, sizeof(buffer), got);
        if (status == ZvSerial::ReadStatus::Data) {
            lastReadEmpty = false;
            m_rxHandler->OnRxData(got, buffer);
            m_bytesReceived.fetch_add(got, std::memory_order_relaxed);
            continue;
        }
        if (status == ZvSerial::ReadStatus::Failed) {
            if (m_reading)
                m_rxHandler->OnRxFail();
            return;
        }
        if (status == ZvSerial::ReadStatus::Interrupted || !m_reading)
            continue; // a signal, or the wake-up of OnClose: the loop condition decides
        // An empty read: the time-out passed, or the port gave nothing at once.
        const unsigned now = ZvTime::GetMsTickTime();
        if (lastReadEmpty && ZvTime::DiffMsTime(lastEmptyTick, now) < fastEmptyMs) {
            // An empty read faster than the time-out: the device has gone.
            m_rxHandler->OnRxFail();
            return;
        }
        lastReadEmpty = true;
        lastEmptyTick = now;
    }
}

void ZvItfAsyncSerial::CheckPeerReady() {
    if (!m_watchPeer)
        return;
    const unsigned now = CoarseMonotonicMs();
    if (now - m_lastPeerCheckTick < kPeerCheckMs)
        return;
    m_lastPeerCheckTick = now;
    int lines = 0;
    if (!m_port.GetModemLines(lines))
        return;
    const bool ready = (lines & TIOCM_DSR) != 0;
    if (ready && !m_peerReady.exchange(true))
        m_rxHandler->OnRxPeerReady();
    else if (!ready)
        m_peerReady = false;
}
