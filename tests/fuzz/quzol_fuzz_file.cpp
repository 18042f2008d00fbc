// File reader over random file contents. Checks that every record is sound, that the bytes read
// are exactly the records plus the skipped bytes, that the live reader finds the same records in
// the same bytes, and that a rewind reads the same again.
#include <fuzzer/FuzzedDataProvider.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "quzol-read-file.h"
#include "quzol-read-live.h"

namespace {

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : abort())

// One scratch file per process, rewritten for every input.
const std::string& ScratchPath() {
    static std::string path;
    if (path.empty()) {
        char pattern[] = "/tmp/quzol-fuzz-file-XXXXXX";
        const int fd = mkstemp(pattern);
        FUZZ_CHECK(fd >= 0);
        close(fd);
        path = pattern;
        atexit([] { remove(path.c_str()); });
    }
    return path;
}

std::vector<unsigned char> ReadAll(QoZolReadFile& reader, QoZolRecordTag* record) {
    std::vector<unsigned char> records;
    unsigned long long lastGapEnd = 0;
    while (reader.ReadRecord(record)) {
        FUZZ_CHECK(record->GetBodySize() <= kQoZolMaxBody);
        FUZZ_CHECK(record->GetTotalSize() == 12 + record->GetBodySize() + record->GetPadding());
        records.insert(records.end(), record->GetData(),
                       record->GetData() + record->GetTotalSize());
        unsigned long long offset = 0, skipped = 0;
        if (reader.CheckForResync(offset, skipped)) {
            FUZZ_CHECK(skipped != 0 && offset >= lastGapEnd);
            lastGapEnd = offset + skipped;
        }
        FUZZ_CHECK(reader.GetOffset() == records.size() + reader.GetSkipped());
    }
    FUZZ_CHECK(reader.IsEof());
    FUZZ_CHECK(reader.GetOffset() == records.size() + reader.GetSkipped());
    FUZZ_CHECK(reader.GetOffset() <= static_cast<unsigned long long>(reader.GetFileSize()));
    return records;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider provider(data, size);
    const bool allLayouts = provider.ConsumeBool();
    const unsigned capacity =
        provider.ConsumeBool() ? kQoZolMaxBody : provider.ConsumeIntegralInRange<unsigned>(0, 256);
    const std::vector<unsigned char> content = provider.ConsumeRemainingBytes<unsigned char>();

    const std::string& path = ScratchPath();
    FILE* file = fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr && (content.empty() || fwrite(content.data(), 1, content.size(),
                                                             file) == content.size()));
    fclose(file);

    QoZolSyncCheck sync, liveSync; // the live reader starts with the same sync order
    for (QoZolSyncCheck* s : {&sync, &liveSync})
        allLayouts ? s->AddAllLayouts() : s->AddScriptDefaults();
    QoZolRecordTag* record = QoZolRecordTag::Create(capacity, kQoZolSyncA);
    QoZolReadFile reader(&sync);
    FUZZ_CHECK(reader.OpenRead(path.c_str()));
    FUZZ_CHECK(reader.GetFileSize() == static_cast<long long>(content.size()));
    const std::vector<unsigned char> records = ReadAll(reader, record);
    const unsigned long long skipped = reader.GetSkipped();

    // The live reader cuts the same records out of the bytes.
    QoZolReadLiveMem live(&liveSync);
    QoZolLiveRecord liveRecord(QoZolRecordTag::Create(capacity, kQoZolSyncA));
    live.SetData(content.data(), static_cast<unsigned>(content.size()));
    std::vector<unsigned char> liveRecords;
    while (live.ReadLiveRecord(liveRecord)) {
        const QoZolRecordTag* r = liveRecord.GetRecord();
        liveRecords.insert(liveRecords.end(), r->GetData(), r->GetData() + r->GetTotalSize());
    }
    FUZZ_CHECK(liveRecords == records);
    FUZZ_CHECK(live.GetSkipped() <= skipped);
    QoZolRecordTag* liveRecordObject = liveRecord.GetRecord();
    QoZolRecordTag::Destroy(&liveRecordObject);

    FUZZ_CHECK(reader.Rewind());
    FUZZ_CHECK(ReadAll(reader, record) == records);
    FUZZ_CHECK(reader.GetSkipped() == skipped);
    reader.Close();
    QoZolRecordTag::Destroy(&record);
    return 0;
}
