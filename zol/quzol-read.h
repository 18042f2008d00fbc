// Record readers: the sync word list, the reader base with its resynchronisation bookkeeping, the
// header assembly buffer, and the helpers that turn a detected resync into an in-band text record.
//
// Every reader finds record boundaries the same way: hunt for a known sync word, read and check
// the 12-byte header, then read body and padding. Bytes that cannot start a valid record are
// skipped one at a time and counted; once the reader is back in step, the gap is reported once
// through CheckForResync.
#pragma once

#include "quzol-record.h"
#include "zv-string-ascii.h"

class QoZolWrite;

// An ordered list of (value, mask) pairs. A 32-bit word w matches a pair when (w & mask) == value.
// A match on any pair but the first moves that pair to the front, so that the sync word seen last
// is tried first next time.
class QoZolSyncCheck {
public:
    static constexpr unsigned kMaxPairs = 16;

    // False when the list is full.
    bool Add(unsigned value, unsigned mask);
    void Clear() { m_count = 0; }
    bool Match(unsigned word);
    unsigned GetCount() const { return m_count; }
    unsigned GetValue(unsigned index) const { return m_pairs[index].value; }
    unsigned GetMask(unsigned index) const { return m_pairs[index].mask; }

    // The list the database extraction uses on the live port stream: layout A and the two
    // layout B words of KOR 1.
    void AddLiveDefaults();
    // The list the script reader uses: layout A only.
    void AddScriptDefaults();
    // Every sync word of every layout (used to summarise a capture).
    void AddAllLayouts();

private:
    struct Pair {
        unsigned value;
        unsigned mask;
    };
    Pair m_pairs[kMaxPairs] = {};
    unsigned m_count = 0;
};

class QoZolReadBase {
public:
    explicit QoZolReadBase(QoZolSyncCheck* syncCheck = nullptr) : m_syncCheck(syncCheck) {}

    // Zeroes the offset, the skipped total, the records read, the sync errors and the resync
    // bookkeeping.
    virtual void ResetStats();
    // Raw read from the source: copies at most `size` bytes, returns the count.
    virtual unsigned DoRead(void* buffer, unsigned size) = 0;
    virtual ~QoZolReadBase() = default;
    virtual void Close() = 0;

    // The sync list is shared, not owned.
    void SetSyncCheck(QoZolSyncCheck* syncCheck) { m_syncCheck = syncCheck; }
    QoZolSyncCheck* GetSyncCheck() const { return m_syncCheck; }

    // True once per detected resync: hands out the stream offset where the last good record
    // before the gap ended and the number of bytes skipped in the gap, then clears the flag.
    bool CheckForResync(unsigned long long& offset, unsigned long long& skipped);

    // Bytes consumed so far as records (header, body, padding) or skipped.
    unsigned long long GetOffset() const { return m_offset; }
    unsigned long long GetSkipped() const { return m_skipped; }
    unsigned long long GetRecordsRead() const { return m_recordsRead; }
    // Number of times the reader lost step (plus one per rejected header).
    unsigned GetSyncErrors() const { return m_syncErrors; }

protected:
    bool MatchSync(unsigned word) { return m_syncCheck != nullptr && m_syncCheck->Match(word); }
    // Counts a complete record and does the resync bookkeeping.
    void OnRecordComplete();

    bool m_resyncDetected = false;
    unsigned long long m_resyncOffset = 0;
    unsigned long long m_resyncSkipped = 0;
    unsigned long long m_lastGoodEnd = 0;
    unsigned long long m_lastGoodSkipped = 0;
    QoZolSyncCheck* m_syncCheck;
    unsigned long long m_offset = 0;
    unsigned long long m_skipped = 0;
    unsigned long long m_recordsRead = 0;
    unsigned m_syncErrors = 0;
};

// The header assembly buffer: up to 12 bytes gathered from a reader, possibly across calls.
class QoZolReadHeader {
public:
    // Reads only what is missing to hold n bytes (n <= 12); true when n bytes are now held.
    bool ReadBytes(QoZolReadBase& reader, unsigned n);
    // Drops the first k bytes; the buffer empties when fewer are held.
    void ShiftData(unsigned k);
    void Reset() { m_count = 0; }

    unsigned GetCount() const { return m_count; }
    unsigned GetTaken() const { return m_taken; }
    // The first held word, little-endian (valid once 4 bytes are held).
    unsigned GetWord0() const;
    const QoZolHeaderBytesTag& GetHeader() const;
    const unsigned char* GetBytes() const { return m_bytes.raw; }

private:
    union {
        unsigned char raw[kQoZolHeaderSize];
        QoZolHeaderBytesTag header;
    } m_bytes = {};
    unsigned m_count = 0;
    unsigned m_taken = 0; // bytes taken from the source in total
};

// The text record reporting a gap: "<name> stream sync error detected at offset '0x...', skipping
// '<n>' bytes" plus its NUL, with the template's sync word, time and KOR and the given id.
// Null when skipped is 0 (or out of memory). The caller destroys the result.
QoZolRecordTag* GenerateSyncErrorMessage(const char* name, unsigned id, unsigned long long offset,
                                         unsigned long long skipped,
                                         const QoZolRecordTag* templateRecord);

// When `id` is not 0xFFFFFFFF and the reader detected a resync, builds the report record (see
// GenerateSyncErrorMessage) for the stream `name`; null otherwise. The caller destroys it.
QoZolRecordTag* CheckAndHandleResyncErrors(const char* name, QoZolReadBase& reader, unsigned id,
                                           const QoZolRecordTag* record);
// As above, naming the stream "KOR<n>" after the record's KOR number.
QoZolRecordTag* CheckAndHandleResyncErrors(QoZolReadBase& reader, unsigned id,
                                           const QoZolRecordTag* record);
// As above, writing the report (if any) to the writer's file and destroying it. `name` may be
// null for the "KOR<n>" form. True when a report was written.
bool CheckAndHandleResyncErrors(QoZolWrite& writer, const char* name, QoZolReadBase& reader,
                                unsigned id, const QoZolRecordTag* record);
