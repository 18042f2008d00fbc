#include "zavra_log_serial_rx.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_socket.h"
#include "zv-file.h"
#include "zv-log.h"
#include "zv-sema.h"

void ZlbsRxBase::OnRxFail() {
    if (m_endOfRun.IsCreated())
        m_endOfRun.Post();
}

void ZlbsRxBase::OnRxPeerReady() {
    ZlsModemSideOpened();
}

bool ZlbsRxNormal::OpenFile(const char* path) {
    CloseFile();
    // One write per chunk, as it arrives, straight to the descriptor: nothing waits in a buffer
    // if the process is killed, and no stream lock is taken per chunk.
    m_fd = ZvFile::OpenLockedForWriting(path);
    return m_fd >= 0;
}

bool ZlbsRxNormal::TruncateFile() {
    return m_fd >= 0 && ZvFile::TruncateIfRegular(m_fd);
}

void ZlbsRxNormal::CloseFile() {
    if (m_fd >= 0) {
        // The capture is on the disk when the tool ends, not only in the page cache.
        fsync(m_fd);
        close(m_fd);
        m_fd = -1;
    }
}

void ZlbsRxNormal::OnRxData(unsigned int count, unsigned char* data) {
    if (m_fd >= 0) {
        unsigned written = 0;
        while (written < count) {
            const ssize_t n = write(m_fd, data + written, count - written);
            if (n > 0)
                written += static_cast<unsigned>(n);
            else if (n < 0 && errno == EINTR)
                continue;
            else
                break;
        }
        if (written != count) {
            // Said at once: a run may last days, and the file is the record users keep.
            if (m_writeFailures++ == 0)
                ZvLog::Error("Failed to write to the output file (%d).", errno);
            m_bytesLost += count - written;
        }
    }
    m_socket.WriteUp(data, count);
}
