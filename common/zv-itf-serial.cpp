#include "zv-itf-serial.h"

#include "zv-time.h"

namespace {
// How long OnClose waits for the read thread before terminating it.
const unsigned kReadThreadFinishMs = 200;
} // namespace

ZvItfAsyncSerial::ZvItfAsyncSerial() = default;

ZvItfAsyncSerial::~ZvItfAsyncSerial() {
    OnClose();
    m_port.Close();
}

bool ZvItfAsyncSerial::OnOpen() {
    OnClose(); // one read thread per interface
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

void ZvItfAsyncSerial::OnClose() {
    bool reading = true;
    if (!m_reading.compare_exchange_strong(reading, false))
        return;
    m_port.Close(); // a blocked read returns at the latest after the time-out
    if (m_readThread.IsCurrentThread())
        return;
    if (!m_readThread.WaitForThreadFinish(kReadThreadFinishMs) && m_readThread.IsAlive()) {
        m_readThread.Terminate(0);
        // The signal ends the thread promptly; let it finish with this object before it goes.
        m_readThread.WaitForThreadFinish(kReadThreadFinishMs);
    }
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
        unsigned got = 0;
        if (!m_port.Read(buffer, sizeof(buffer), got)) {
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
