#include "quzol-pcapng-stream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "quzol-pcapng-export.h"
#include "zv-ver.h"

namespace {

// Big enough that a file goes at disk speed, small enough to be nothing beside a pipe's pace.
const size_t kReadSize = 1 << 20;

// One read, retried when a signal interrupts it; -1 with errno on failure.
ssize_t ReadSome(int fd, unsigned char* buffer, size_t size) {
    for (;;) {
        const ssize_t n = read(fd, buffer, size);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

// Follows the whole file with the export's clock only, and returns the clock base that puts its
// records in host time. The file position is restored.
bool SurveyFile(int fd, const struct stat& info, unsigned baseId, std::vector<unsigned char>& buf,
                long long& base) {
    const off_t start = lseek(fd, 0, SEEK_CUR);
    if (start < 0)
        return false;
    QoZolPcapngExport survey(nullptr, baseId);
    if (!survey.IsReady())
        return false;
    for (;;) {
        const ssize_t n = ReadSome(fd, buf.data(), buf.size());
        if (n < 0)
            return false;
        if (n == 0)
            break;
        survey.Feed(buf.data(), static_cast<unsigned>(n));
    }
    survey.Finish();
    if (survey.SawHostTime()) {
        base = survey.FirstHostUs() - survey.FirstHostClockElapsed();
    } else {
        const long long mtimeUs =
            static_cast<long long>(info.st_mtim.tv_sec) * 1000000 + info.st_mtim.tv_nsec / 1000;
        base = mtimeUs - survey.Clock().LastPacketElapsed();
    }
    return lseek(fd, start, SEEK_SET) == start;
}

} // namespace

bool QoZolExportPcapng(int inFd, int outFd, unsigned baseId, const char* inName,
                       const char* outName, ZvAString& error) {
    std::vector<unsigned char> buf(kReadSize);
    QoPcapngWriter writer(outFd);
    QoZolPcapngExport exporter(&writer, baseId);
    if (!exporter.IsReady()) {
        error = "Out of memory.";
        return false;
    }
    struct stat info;
    if (fstat(inFd, &info) == 0 && S_ISREG(info.st_mode)) {
        long long base = 0;
        if (!SurveyFile(inFd, info, baseId, buf, base)) {
            error.Printf("Failed to read '%s' (%s).", inName, strerror(errno));
            return false;
        }
        exporter.Clock().SetBase(base);
    } else {
        exporter.AnchorAtArrival();
    }

    ZvAString number;
    ZvVer(1, 8).GetNumberString(number);
    bool written = writer.WriteHeader(("zavra_zom_info " + number).c_str());
    while (written) {
        const ssize_t n = ReadSome(inFd, buf.data(), buf.size());
        if (n < 0) {
            error.Printf("Failed to read '%s' (%s).", inName, strerror(errno));
            writer.Flush();
            return false;
        }
        if (n == 0)
            break;
        written = exporter.Feed(buf.data(), static_cast<unsigned>(n)) && writer.Flush();
    }
    written = written && exporter.Finish() && writer.Flush();
    if (!written)
        error.Printf("Failed to write to '%s' (%s).", outName, strerror(writer.Errno()));
    return written;
}
