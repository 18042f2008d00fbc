// ZvTime: the clock operations of the system. The millisecond tick is wall-clock based and wraps
// every 49.7 days; compare ticks only through DiffMsTime.
#pragma once

#include <cstdint>

class ZvTime {
public:
    static unsigned GetMsTickTime();
    // b - a in 32-bit arithmetic, right across one wrap of the tick.
    static unsigned DiffMsTime(unsigned a, unsigned b) { return b - a; }
    static void Sleep(unsigned ms);

    static long long UsSinceEpoch();
    static long long UsSinceEpoch(int year, int month, int day, int hour, int minute, int second,
                                  long long us);
    static long long UsSinceMidnight(long long usSinceEpoch);
    static long long UsSinceMidnight();

    // Each returns its own static buffer (not thread-safe), "unknown_time" when the local time
    // cannot be computed.
    static const char* GetReverseTimeString();     // "yy-mm-dd_hh-mm-ss", sorts by time
    static const char* GetReverseTimeStringText(); // "dd/mm/yyyy hh:mm:ss"
    static const char* GetNormalTimeString();      // "hh:mm:ss dd/mm/yy"
};

// The offset of local time from UTC, computed once at construction.
class ZvTimeData {
public:
    ZvTimeData();
    long long m_localOffsetUs;
};
