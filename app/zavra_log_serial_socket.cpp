#include "zavra_log_serial_socket.h"

#include <cerrno>

#include "zavra_log_serial_args.h"
#include "zv-log.h"

bool ZlsSocketStream::OpenSocket(int server, int port, ZlsSocketInputCallback callback) {
    m_errorText.clear();
    if (callback == nullptr) {
        m_errorText = "No socket input stream callback function provided.";
        return false;
    }
    if (!m_socket.OpenServer(server, kReceiveBufferSize, kSendBufferSize)) {
        m_errorText.Printf("Failed to open the down stream socket %d.", port);
        return false;
    }
    m_open = true;
    m_callback = callback;
    m_startCreated = m_start.Create(0);
    if (!m_upQueue.Start(m_socket) ||
        !m_thread.Create(&ZlsSocketStream::InputSocketStreamThreadFunc, this)) {
        m_errorText.Printf("Failed to start thread to read from the down stream socket %d.", port);
        Close();
        return false;
    }
    return true;
}

void ZlsSocketStream::Release() {
    if (m_startCreated)
        m_start.Post();
}

void ZlsSocketStream::Close() {
    if (!m_open.exchange(false))
        return;
    // The writer uses the socket until it has stopped.
    m_upQueue.Stop(kCloseFlushMs);
    if (m_startCreated) {
        // A reader still waiting for the start is let go; it then finds the socket closed.
        m_start.Post();
        m_socket.Close();
        m_thread.WaitForThreadFinish(200);
        m_start.Destroy();
        m_startCreated = false;
    } else {
        m_socket.Close();
    }
}

void ZlsSocketStream::WriteUp(const unsigned char* data, unsigned length) {
    switch (m_upQueue.Push(data, length)) {
    case ZvSendQueue::kDropStarted:
        if (noisiness > 4)
            ZvLog::Status("Socket client is not keeping up, dropping data for the client (its "
                          "queue of %zu bytes is full).",
                          m_upQueue.Limit());
        break;
    case ZvSendQueue::kResumed:
        if (noisiness > 4)
            ZvLog::Status("Socket client is taking data again (%llu bytes in %llu chunks dropped "
                          "so far).",
                          static_cast<unsigned long long>(m_upQueue.DroppedBytes()),
                          static_cast<unsigned long long>(m_upQueue.DroppedChunks()));
        break;
    default:
        break;
    }
}

void ZlsSocketStream::InputSocketStreamThreadFunc(ZvThread*, void* self) {
    static_cast<ZlsSocketStream*>(self)->ReadLoop();
}

void ZlsSocketStream::ReadLoop() {
    m_start.Wait();
    unsigned char buffer[kReadSize];
    for (;;) {
        int got = m_socket.Read(buffer, sizeof buffer);
        if (got <= 0) {
            if (noisiness > 4)
                ZvLog::Status("Socket read failed, exiting read thread (%d, %d).", got, errno);
            // The writer first: it must not send on a descriptor that is closed and reused.
            m_upQueue.Stop();
            m_socket.Close();
            return;
        }
        if (m_open)
            m_callback(0, buffer, static_cast<unsigned>(got));
    }
}
