#include "quzol-info.h"

#include "quzol-read-file.h"

bool QoZolInfo::GetInfo(const char* path, QoZolInfoResult& info, QoZolSyncCheck* syncCheck,
                        ZvAString* error) {
    info = QoZolInfoResult();
    QoZolSyncCheck allLayouts;
    if (syncCheck == nullptr) {
        allLayouts.AddAllLayouts();
        syncCheck = &allLayouts;
    }
    QoZolReadFile reader(syncCheck);
    if (!reader.OpenRead(path)) {
        if (error != nullptr)
            error->Printf("Failed to open '%s'.", path != nullptr ? path : "");
        return false;
    }
    info.fileSize = reader.GetFileSize();
    // Room for the largest body any record may carry, so that no valid header is refused.
    QoZolRecordTag* record = QoZolRecordTag::Create(kQoZolMaxBody, kQoZolSyncA);
    if (record == nullptr) {
        if (error != nullptr)
            *error = "Out of memory.";
        return false;
    }
    while (reader.ReadRecord(record)) {
        const unsigned long long t = record->GetTime();
        if (info.records == 0) {
            info.firstTime = info.minTime = info.maxTime = t;
        } else {
            info.minTime = t < info.minTime ? t : info.minTime;
            info.maxTime = t > info.maxTime ? t : info.maxTime;
        }
        info.lastTime = t;
        ++info.records;
        info.recordBytes += record->GetTotalSize();
        ++info.recordsPerLayout[record->GetFormat() & 3];
        ++info.recordsPerKor[record->GetKor() & 3];
        ++info.recordsPerId[{record->GetFormat(), record->GetId()}];
        unsigned long long offset = 0;
        unsigned long long skipped = 0;
        if (reader.CheckForResync(offset, skipped))
            info.gaps.push_back(QoZolGapInfo{offset, skipped});
    }
    QoZolRecordTag::Destroy(&record);
    info.skippedBytes = reader.GetSkipped();
    info.syncErrors = reader.GetSyncErrors();
    unsigned long long inGaps = 0;
    for (const QoZolGapInfo& gap : info.gaps)
        inGaps += gap.skipped;
    info.skippedAtEnd = info.skippedBytes - inGaps;
    const unsigned long long consumed = reader.GetOffset();
    const unsigned long long size = info.fileSize > 0 ? info.fileSize : 0;
    info.trailingBytes = size > consumed ? size - consumed : 0;
    return true;
}

void QoZolInfo::Format(const char* path, const QoZolInfoResult& info, ZvAString& out) {
    static const char* const kLayoutNames[4] = {"unknown", "A (legacy)", "B (per-KOR sync)", "C"};
    out.clear();
    out.AddPrintf("File: '%s'\n", path != nullptr ? path : "");
    out.AddPrintf("Total bytes: %lld\n", info.fileSize);
    out.AddPrintf("Records: %llu (%llu bytes)\n", info.records, info.recordBytes);
    for (unsigned kind = 1; kind < 4; ++kind)
        if (info.recordsPerLayout[kind] != 0)
            out.AddPrintf("  layout %s: %llu\n", kLayoutNames[kind], info.recordsPerLayout[kind]);
    for (unsigned kor = 0; kor < 4; ++kor)
        if (info.recordsPerKor[kor] != 0)
            out.AddPrintf("  KOR %u: %llu\n", kor, info.recordsPerKor[kor]);
    if (!info.recordsPerId.empty()) {
        out.AddPrintf("Records per message id:\n");
        for (const auto& entry : info.recordsPerId)
            out.AddPrintf("  layout %s id 0x%04X (%u): %llu\n", kLayoutNames[entry.first.first & 3],
                          entry.first.second, entry.first.second, entry.second);
    }
    if (info.records != 0)
        out.AddPrintf("Time stamps: first %llu, last %llu, lowest %llu, highest %llu\n",
                      info.firstTime, info.lastTime, info.minTime, info.maxTime);
    out.AddPrintf("Sync errors: %u, skipped bytes: %llu\n", info.syncErrors, info.skippedBytes);
    for (const QoZolGapInfo& gap : info.gaps)
        out.AddPrintf("  lost step after offset 0x%08llX, skipped %llu bytes\n", gap.offset,
                      gap.skipped);
    if (info.skippedAtEnd != 0)
        out.AddPrintf("  %llu bytes skipped at the end of the file\n", info.skippedAtEnd);
    if (info.trailingBytes != 0)
        out.AddPrintf("Incomplete record at the end: %llu bytes\n", info.trailingBytes);
}
