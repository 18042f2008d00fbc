#include "zv-serial.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

struct SpeedRow {
    unsigned bitsPerSecond;
    speed_t constant;
};

const SpeedRow kSpeedTable[] = {
    {0, B0},
    {50, B50},
    {75, B75},
    {110, B110},
    {134, B134},
    {150, B150},
    {200, B200},
    {300, B300},
    {600, B600},
    {1200, B1200},
    {1800, B1800},
    {2400, B2400},
    {4800, B4800},
    {9600, B9600},
    {19200, B19200},
    {38400, B38400},
    {57600, B57600},
    {115200, B115200},
    {230400, B230400},
    {460800, B460800},
    {500000, B500000},
    {576000, B576000},
    {921600, B921600},
    {1000000, B1000000},
    {1152000, B1152000},
    {1500000, B1500000},
    {2000000, B2000000},
    {2500000, B2500000},
    {3000000, B3000000},
    {3500000, B3500000},
    {4000000, B4000000},
};

} // namespace

ZvSerial::ZvSerial() : m_haveSaved(false), m_saved{}, m_fd(-1), m_lastError(0) {}

ZvSerial::~ZvSerial() {
    Close();
}

bool ZvSerial::SpeedToConstant(unsigned speed, speed_t& constant) {
    for (const SpeedRow& row : kSpeedTable) {
        if (row.bitsPerSecond == speed) {
            constant = row.constant;
            return true;
        }
    }
    return false;
}

bool ZvSerial::Fail(int fd, bool clearExclusive) {
    m_lastError = errno;
    if (fd >= 0 && m_fd.compare_exchange_strong(fd, -1)) {
        if (clearExclusive)
            ioctl(fd, TIOCNXCL);
        RestoreSettings(fd);
        close(fd);
    }
    return false;
}

void ZvSerial::RestoreSettings(int fd) {
    // At once, without waiting for output to drain: a port that has gone would hold the close.
    if (m_haveSaved.exchange(false))
        tcsetattr(fd, TCSANOW, &m_saved);
}

bool ZvSerial::Open(const char* name, unsigned speed, unsigned flags) {
    m_lastError = 0;
    Close();

    const int fd = open(name, O_RDWR | O_NOCTTY);
    if (fd < 0)
        return Fail(-1);
    m_fd = fd;
    // Locked before anything else: the flush below would otherwise throw away bytes that belong
    // to the process already reading the port. The exclusive mode is that process's, too.
    if (flock(fd, LOCK_EX | LOCK_NB) != 0)
        return Fail(fd, false);

    termios settings{};
    if (tcgetattr(fd, &settings) != 0)
        return Fail(fd);
    m_saved = settings;
    m_haveSaved = true;

    settings.c_iflag &=
        ~(IGNBRK | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IUCLC | IXON | IXANY | IXOFF);
    settings.c_oflag &= ~(OPOST | ONLCR);
    settings.c_lflag &=
        ~(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOKE | IEXTEN);
    settings.c_cflag &= ~(CSTOPB | PARENB | PARODD | CSIZE);
    settings.c_cflag |= CS8 | CREAD | CLOCAL;
    if (flags & kFlagHardwareFlowControl)
        settings.c_cflag |= CRTSCTS;
    else
        settings.c_cflag &= ~CRTSCTS;
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;

    speed_t constant;
    if (!SpeedToConstant(speed, constant)) {
        errno = EINVAL;
        return Fail(fd);
    }
    if (cfsetispeed(&settings, constant) != 0 || cfsetospeed(&settings, constant) != 0)
        return Fail(fd);

    if (tcflush(fd, TCIFLUSH) != 0 || tcsetattr(fd, TCSANOW, &settings) != 0 ||
        ioctl(fd, TIOCEXCL) != 0)
        return Fail(fd);
    return true;
}

bool ZvSerial::IsHeldByAnother(const char* name) {
    const int fd = open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == EBUSY; // the terminal's exclusive mode, for a user other than root
    const bool held = flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd); // also gives up the lock taken here
    return held;
}

bool ZvSerial::IsSamePort(const char* a, const char* b) {
    struct stat first, second;
    const bool haveFirst = stat(a, &first) == 0, haveSecond = stat(b, &second) == 0;
    if (!haveFirst || !haveSecond)
        return !haveFirst && !haveSecond && strcmp(a, b) == 0;
    if (S_ISCHR(first.st_mode) && S_ISCHR(second.st_mode))
        return first.st_rdev == second.st_rdev;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::string ZvSerial::ResolvePortName(const char* name) {
    char* resolved = realpath(name, nullptr);
    if (resolved == nullptr)
        return name;
    std::string node(resolved);
    free(resolved);
    return node;
}

const char* ZvSerial::DescribeOpenError(int error) {
    if (error == EWOULDBLOCK || error == EBUSY)
        return "it is in use by another program";
    return strerror(error);
}

bool ZvSerial::SetTotalTimeout(unsigned ms) {
    const int fd = m_fd.load();
    if (fd < 0)
        return false;
    termios settings{};
    if (tcgetattr(fd, &settings) != 0) {
        m_lastError = errno;
        return false;
    }
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = static_cast<cc_t>(ms / 100); // one byte: 25600 ms and above wrap
    if (tcsetattr(fd, TCSANOW, &settings) != 0) {
        m_lastError = errno;
        return false;
    }
    m_lastError = 0;
    return true;
}

bool ZvSerial::Read(unsigned char* buffer, unsigned size, unsigned& got) {
    got = 0;
    const int fd = m_fd.load();
    if (fd < 0)
        return false;
    const ssize_t result = read(fd, buffer, size);
    if (result < 0) {
        m_lastError = errno;
        return false;
    }
    got = static_cast<unsigned>(result);
    return true;
}

ZvSerial::ReadStatus ZvSerial::ReadOnce(unsigned char* buffer, unsigned size, unsigned& got) {
    got = 0;
    const int fd = m_fd.load();
    if (fd < 0)
        return ReadStatus::Failed;
    const ssize_t result = read(fd, buffer, size);
    if (result > 0) {
        got = static_cast<unsigned>(result);
        return ReadStatus::Data;
    }
    if (result == 0)
        return ReadStatus::Empty;
    if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
        return ReadStatus::Interrupted;
    m_lastError = errno;
    return ReadStatus::Failed;
}

bool ZvSerial::Write(const unsigned char* data, unsigned count) {
    const int fd = m_fd.load();
    if (fd < 0)
        return false;
    const ssize_t result = write(fd, data, count);
    if (result < 0) {
        m_lastError = errno;
        return false;
    }
    return static_cast<unsigned>(result) == count;
}

void ZvSerial::InterruptReads() {
    const int fd = m_fd.load();
    if (fd < 0)
        return;
    // A terminal read that waits looks at O_NONBLOCK again whenever it is woken, and a change of
    // settings wakes it, even one that changes nothing.
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    termios settings{};
    if (tcgetattr(fd, &settings) == 0)
        tcsetattr(fd, TCSANOW, &settings);
}

void ZvSerial::Close() {
    const int fd = m_fd.exchange(-1);
    if (fd >= 0) {
        // Give up the exclusion explicitly: a pseudo-terminal keeps it after the last close for
        // as long as its master is open, which would refuse our own re-open to a non-root user.
        ioctl(fd, TIOCNXCL);
        RestoreSettings(fd);
        close(fd);
    }
}

bool ZvSerial::GetModemLines(int& lines) const {
    const int fd = m_fd.load();
    lines = 0;
    return fd >= 0 && ioctl(fd, TIOCMGET, &lines) == 0;
}
