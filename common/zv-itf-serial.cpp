#include "zv-itf-serial.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "zv-time.h"

namespace {
// How long OnClose waits for the read thread before terminating it.
const unsigned kReadThreadFinishMs = 200;
// How often a watched port's DSR is looked at: one ioctl, also while data flows.
const unsigned kPeerCheckMs = 200;

// The time a read waits for data: the terminal's VTIME, which keeps whole deciseconds in one byte.
int ReadWaitMs(unsigned totalTimeoutMs) {
    return static_cast<uint8_t>(totalTimeoutMs / 100) * 100;
}
} // namespace

ZvItfAsyncSerial::ZvItfAsyncSerial() : m_wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

ZvItfAsyncSerial::~ZvItfAsyncSerial() {
    OnClose();
    m_port.Close();
    if (m_wakeFd >= 0)
        close(m_wakeFd);
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
    uint64_t stale = 0; // a wake-up left by an OnClose from inside a handler
    while (m_wakeFd >= 0 && read(m_wakeFd, &stale, sizeof(stale)) > 0) {
    }
    if (opened && m_wakeFd >= 0 && m_port.SetTotalTimeout(m_totalTimeoutMs) &&
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
    const uint64_t one = 1;
    (void)!write(m_wakeFd, &one, sizeof(one)); // a waiting reader returns at once
    if (m_readThread.IsCurrentThread()) {
        // Called from a handler: the reader is not inside poll or read, and ends on its return.
        m_port.Close();
        return;
    }
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
    const int waitMs = ReadWaitMs(m_totalTimeoutMs);
    while (m_reading) {
        unsigned got = 0;
        const WaitResult waited = WaitForInput(waitMs);
        if (!m_reading)
            return; // closing: the wake-up, or data that arrived with it
        if (waited == WaitResult::Woken)
            continue; // stale wake-up
        CheckPeerReady();
        if (waited == WaitResult::Failed ||
            (waited == WaitResult::Ready && !m_port.Read(buffer, sizeof(buffer), got))) {
            if (m_reading)
                m_rxHandler->OnRxFail();
            return;
        }
        if (got > 0) {
            lastReadEmpty = false;
            m_rxHandler->OnRxData(got, buffer);
            m_bytesReceived.fetch_add(got, std::memory_order_relaxed);
            continue;
        }
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
    const unsigned now = ZvTime::GetMsTickTime();
    if (ZvTime::DiffMsTime(m_lastPeerCheckTick, now) < kPeerCheckMs)
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

ZvItfAsyncSerial::WaitResult ZvItfAsyncSerial::WaitForInput(int ms) {
    pollfd fds[2] = {{m_port.GetHandle(), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    int ready = poll(fds, 2, ms);
    while (ready < 0 && errno == EINTR)
        ready = poll(fds, 2, ms); // a signal to the process; the wait starts again
    if (ready < 0 || (fds[0].revents & POLLNVAL))
        return WaitResult::Failed;
    if (fds[1].revents != 0) {
        uint64_t count = 0;
        (void)!read(m_wakeFd, &count, sizeof(count));
        return WaitResult::Woken;
    }
    // Data, a hang-up or an error: the read tells which.
    return ready > 0 ? WaitResult::Ready : WaitResult::TimedOut;
}
