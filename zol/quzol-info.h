// QoZolInfo: a summary of a whole file of ZOL records (a ".zom" capture or a ".zol"/script file).
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "quzol-read.h"
#include "zv-string-ascii.h"

// One place where the reader lost step and found it again.
struct QoZolGapInfo {
    unsigned long long offset = 0;  // file offset where the last good record before the gap ended
    unsigned long long skipped = 0; // bytes skipped before the next good record
};

struct QoZolInfoResult {
    long long fileSize = 0;
    unsigned long long records = 0;
    unsigned long long recordBytes = 0;  // header, body and padding of every record read
    unsigned long long skippedBytes = 0; // bytes that started no valid record
    // Bytes after the last complete record that were neither a record nor skipped (a record cut
    // off by the end of the file).
    unsigned long long trailingBytes = 0;

    // Indexed by format kind (QoZolFormat): 0 unused, 1 layout A, 2 layout B, 3 layout C.
    unsigned long long recordsPerLayout[4] = {};
    // Indexed by KOR number 0..3 (layout C carries two bits).
    unsigned long long recordsPerKor[4] = {};
    // Records per (format kind, message id): ids of different layouts are separate name spaces.
    std::map<std::pair<unsigned, unsigned>, unsigned long long> recordsPerId;

    // Time stamps as carried by the records (units are the target's); valid when records > 0.
    unsigned long long firstTime = 0;
    unsigned long long lastTime = 0;
    unsigned long long minTime = 0;
    unsigned long long maxTime = 0;

    // Number of times the reader lost step, and where each gap was (in file order).
    unsigned syncErrors = 0;
    std::vector<QoZolGapInfo> gaps;
    // Skipped bytes at the end of the file with no record after them (no gap entry for those).
    unsigned long long skippedAtEnd = 0;
};

class QoZolInfo {
public:
    // Reads the whole file at `path` and fills `info`. With no sync list, records of every layout
    // are accepted. False (with `error` set when given) when the file cannot be opened or memory
    // runs out; a file full of garbage is not an error.
    static bool GetInfo(const char* path, QoZolInfoResult& info,
                        QoZolSyncCheck* syncCheck = nullptr, ZvAString* error = nullptr);

    // A human-readable summary over several lines, each ending with a line feed.
    static void Format(const char* path, const QoZolInfoResult& info, ZvAString& out);
};
