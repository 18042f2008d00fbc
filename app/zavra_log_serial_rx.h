// The receive handlers of the capture: every chunk the port reader delivers passes through the
// selected one, on the reader thread.
#pragma once

#include "zv-itf-serial.h"

class ZlsSocketStream;
class ZvSema;

// Posts the end-of-run semaphore when the port fails, and sends the start-up messages again when
// the modem's side of the port opens late; the same for every mode.
class ZlbsRxBase : public ZvItfAsyncRxHandlers {
public:
    explicit ZlbsRxBase(ZvSema& endOfRun) : m_endOfRun(endOfRun) {}
    void OnRxFail() override;
    void OnRxPeerReady() override;

private:
    ZvSema& m_endOfRun;
};

// Plain capture: each chunk goes whole to the output file, then to the socket client if any.
class ZlbsRxNormal : public ZlbsRxBase {
public:
    ZlbsRxNormal(ZvSema& endOfRun, ZlsSocketStream& socket)
        : ZlbsRxBase(endOfRun), m_socket(socket) {}
    ~ZlbsRxNormal() { CloseFile(); }

    // Opens the output and locks it, without truncating it: false with errno set, EWOULDBLOCK
    // when another process holds it. The file is written unbuffered, so every byte handed over is
    // in the file at once.
    bool OpenFile(const char* path);
    // Empties the output before the capture starts; false with errno set.
    bool TruncateFile();
    void CloseFile();
    bool IsFileOpen() const { return m_fd >= 0; }
    // Short writes to the file (a full disk): the first is reported when it happens, the totals
    // at the end of the run.
    unsigned long long FileWriteFailures() const { return m_writeFailures; }
    unsigned long long FileBytesLost() const { return m_bytesLost; }

    void OnRxData(unsigned int count, unsigned char* data) override;

private:
    ZlsSocketStream& m_socket;
    int m_fd = -1;
    unsigned long long m_writeFailures = 0;
    unsigned long long m_bytesLost = 0;
};
