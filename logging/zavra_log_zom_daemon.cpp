#include "zavra_log_zom_daemon.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zv-file-util.h"
#include "zv-file.h"

namespace {
// How long Shutdown waits, beyond 200 ms, for a thread still inside a port hook before it frees
// what the thread uses.
const unsigned kShutdownGraceMs = 2000;
} // namespace

ZlZomDaemon::ZlZomDaemon()
    : m_sync(m_journal), m_store(m_journal, m_sync, *this), m_server(m_journal, *this, m_portOpen),
      m_connect(m_journal, *this, m_store, m_server, m_portOpen) {}

ZlZomDaemon::~ZlZomDaemon() {
    ShutdownStore(false);
}

void ZlZomDaemon::LogText(const char* format, ...) {
    va_list args;
    va_start(args, format);
    m_journal.Line(false, format, args);
    va_end(args);
}

void ZlZomDaemon::LogFault(const char* format, ...) {
    va_list args;
    va_start(args, format);
    m_journal.Line(true, format, args);
    va_end(args);
}

bool ZlZomDaemon::LockDirectory(const ZvAString& directory, ZvAString& error) {
    ZvAString path = directory;
    ZvFileUtil::AppendToPath(path, "daemon.lock");
    // The lock decides, not the file: one left by a daemon that was killed is simply taken over.
    // A daemon that ends removes its file while it still holds the lock, so a lock taken on a
    // file that is no longer the one in the directory is let go, and the new file tried.
    for (;;) {
        const int fd = ZvFile::OpenFd(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) {
            error.Printf("Failed to create the lock file '%s' (%s).", path.c_str(),
                         strerror(errno));
            return false;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int reason = errno;
            DescribeLockFailure(fd, reason, directory, path, error);
            close(fd);
            errno = reason; // for the caller's exit status
            return false;
        }
        struct stat held, named;
        if (fstat(fd, &held) != 0 || stat(path.c_str(), &named) != 0 ||
            held.st_ino != named.st_ino || held.st_dev != named.st_dev) {
            close(fd);
            continue;
        }
        // The owner's process id, for the message of a second daemon.
        ZvAString pid;
        pid.Printf("%d\n", static_cast<int>(getpid()));
        if (ftruncate(fd, 0) == 0)
            (void)!pwrite(fd, pid.data(), pid.size(), 0);
        m_lockFd = fd;
        m_lockPath = path;
        return true;
    }
}

void ZlZomDaemon::DescribeLockFailure(int fd, int reason, const ZvAString& directory,
                                      const ZvAString& path, ZvAString& error) {
    if (reason != EWOULDBLOCK) {
        error.Printf("Failed to lock '%s' (%s).", path.c_str(), strerror(reason));
        return;
    }
    char owner[32] = {0};
    const ssize_t got = pread(fd, owner, sizeof(owner) - 1, 0);
    ZvAString pid(got > 0 ? owner : "");
    pid.Trim();
    error.Printf("Another daemon is already logging to the directory '%s'%s%s%s.",
                 directory.c_str(), pid.empty() ? "" : " (process ", pid.c_str(),
                 pid.empty() ? "" : ")");
}

bool ZlZomDaemon::Initialise(ZvAString directory, unsigned long long totalSize,
                             unsigned long long fileSize, ZvVer& version) {
    m_store.Configure(directory, totalSize, fileSize);
    ZvAString journal = directory;
    ZvFileUtil::AppendToPath(journal, "daemon.log");
    m_journal.Open(journal);
    m_sync.OpenDirectory(directory);
    ZvAString versionText;
    version.GetFullVersionString(versionText);
    m_journal.Text("Initialising started.");
    m_journal.Text("%s", versionText.c_str());
    m_journal.Text("Directory: %s", directory.c_str());
    m_journal.Text("Total Size: %llu", totalSize);
    m_journal.Text("File Size: %llu", fileSize);
    if (m_server.Serves())
        m_journal.Text("Socket port number: %d", m_server.GetSocketPort());
    if (m_server.Serves() && !m_server.GetListenAddress().Host().empty())
        m_journal.Text("Socket address: %s", m_server.GetListenAddress().Describe().c_str());

    bool ok = m_store.TakeOver();
    if (ok)
        m_sync.Start([this] { return m_store.TakeCurrentFileForSync(); });
    if (ok && m_server.Serves())
        ok = m_server.Start();
    if (ok)
        ok = m_connect.Start();
    if (ok)
        m_connect.Request();
    m_journal.Text("Initialising finished.");
    return ok;
}

void ZlZomDaemon::NewLogData(unsigned char* data, unsigned size) {
    if (m_store.Write(data, size))
        m_server.Send(data, size);
}

void ZlZomDaemon::PortFailureDetected() {
    m_journal.Fault("Port Failure Detected.");
    m_connect.Request();
}

void ZlZomDaemon::ShutdownStore(bool closePort) {
    if (m_shutDown.exchange(true))
        return;
    m_portOpen = false;
    m_connect.Shutdown(kShutdownGraceMs);
    if (m_server.Serves())
        m_server.Shutdown(kShutdownGraceMs);
    // The connect thread may have opened the port again just before it ended.
    if (closePort)
        ClosePort();
    m_store.Close();
    // The last segment, and the directory, reach the disk before the process ends.
    m_sync.End();
    m_journal.Text("Shut down");
    m_journal.Close();
    if (m_lockFd >= 0) {
        // Removed while still held: a daemon starting now either finds it held or finds none.
        ZvFileUtil::DelFile(m_lockPath.c_str());
        close(m_lockFd);
        m_lockFd = -1;
    }
}
