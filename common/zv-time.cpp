#include "zv-time.h"

#include <cstdio>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

unsigned ZvTime::GetMsTickTime() {
    struct timeval now;
    if (gettimeofday(&now, nullptr) != 0)
        return 0;
    unsigned long long ms = static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
                            static_cast<unsigned long long>(now.tv_usec / 1000);
    return static_cast<unsigned>(ms);
}

void ZvTime::Sleep(unsigned ms) {
    if (ms / 1000 != 0)
        sleep(ms / 1000);
    if (ms % 1000 != 0)
        usleep((ms % 1000) * 1000);
}

long long ZvTime::UsSinceEpoch() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<long long>(now.tv_sec) * 1000000LL + now.tv_usec;
}

long long ZvTime::UsSinceEpoch(int year, int month, int day, int hour, int minute, int second,
                               long long us) {
    struct tm local = {};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = -1;
    return static_cast<long long>(mktime(&local)) * 1000000LL + us;
}

long long ZvTime::UsSinceMidnight(long long usSinceEpoch) {
    time_t seconds = static_cast<time_t>(usSinceEpoch / 1000000LL);
    struct tm local;
    if (localtime_r(&seconds, &local) == nullptr)
        return 0;
    long long dayUs = (local.tm_hour * 3600LL + local.tm_min * 60LL + local.tm_sec) * 1000000LL;
    return dayUs + usSinceEpoch % 1000000LL;
}

long long ZvTime::UsSinceMidnight() {
    return UsSinceMidnight(UsSinceEpoch());
}

namespace {
// Formats the local time now into a static buffer, or "unknown_time".
template <size_t N, class Format>
const char* FormatNow(char (&buffer)[N], Format format) {
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr)
        snprintf(buffer, N, "unknown_time");
    else
        format(buffer, N, local);
    return buffer;
}
} // namespace

const char* ZvTime::GetReverseTimeString() {
    static char buffer[64];
    return FormatNow(buffer, [](char* out, size_t n, const struct tm& t) {
        snprintf(out, n, "%02d-%02d-%02d_%02d-%02d-%02d", t.tm_year % 100, t.tm_mon + 1, t.tm_mday,
                 t.tm_hour, t.tm_min, t.tm_sec);
    });
}

const char* ZvTime::GetReverseTimeStringText() {
    static char buffer[64];
    return FormatNow(buffer, [](char* out, size_t n, const struct tm& t) {
        snprintf(out, n, "%02d/%02d/%d %02d:%02d:%02d", t.tm_mday, t.tm_mon + 1, t.tm_year + 1900,
                 t.tm_hour, t.tm_min, t.tm_sec);
    });
}

const char* ZvTime::GetNormalTimeString() {
    static char buffer[64];
    return FormatNow(buffer, [](char* out, size_t n, const struct tm& t) {
        snprintf(out, n, "%02d:%02d:%02d %02d/%02d/%02d", t.tm_hour, t.tm_min, t.tm_sec, t.tm_mday,
                 t.tm_mon + 1, t.tm_year % 100);
    });
}

ZvTimeData::ZvTimeData() {
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    utc.tm_isdst = -1;
    time_t asLocal = mktime(&utc);
    m_localOffsetUs = static_cast<long long>(now - asLocal) * 1000000LL;
}
