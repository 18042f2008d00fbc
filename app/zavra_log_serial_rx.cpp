#include "zavra_log_serial_rx.h"

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
    const int fd = ZvFile::OpenLockedForWriting(path);
    if (fd < 0)
        return false;
    m_file = fdopen(fd, "wb");
    if (m_file == nullptr) {
        const int reason = errno;
        close(fd);
        errno = reason;
        return false;
    }
    // One write per chunk, as it arrives: nothing waits in a buffer if the process is killed.
    setvbuf(m_file, nullptr, _IONBF, 0);
    return true;
}

bool ZlbsRxNormal::TruncateFile() {
    return m_file != nullptr && ZvFile::TruncateIfRegular(fileno(m_file));
}

void ZlbsRxNormal::CloseFile() {
    if (m_file != nullptr) {
        // The capture is on the disk when the tool ends, not only in the page cache.
        fflush(m_file);
        fsync(fileno(m_file));
        fclose(m_file);
        m_file = nullptr;
    }
}

void ZlbsRxNormal::OnRxData(unsigned int count, unsigned char* data) {
    if (m_file != nullptr) {
        size_t written = fwrite(data, 1, count, m_file);
        if (written != count) {
            // Said at once: a run may last days, and the file is the record users keep.
            if (m_writeFailures++ == 0)
                ZvLog::Error("Failed to write to the output file (%d).", errno);
            m_bytesLost += count - written;
        }
    }
    m_socket.WriteUp(data, count);
}
