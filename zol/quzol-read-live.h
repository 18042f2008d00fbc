// Live readers: records cut out of a stream that arrives in chunks (the port data). A record may
// straddle any number of chunks, so the partial state lives in QoZolLiveRecord between calls.
//
// Use:
//   QoZolSyncCheck sync;  sync.AddLiveDefaults();
//   QoZolReadLiveMem reader(&sync);
//   QoZolLiveRecord live(QoZolRecordTag::Create(kQoZolMaxBody, kQoZolSyncA));
//   for each chunk:
//       reader.SetData(data, size);
//       while (reader.ReadLiveRecord(live)) { use *live.GetRecord(); }
#pragma once

#include "quzol-read.h"

// The partial-record state kept between chunks.
class QoZolLiveRecord {
public:
    enum Phase : unsigned { PhaseSync = 0, PhaseHeader = 1, PhaseBody = 2, PhasePadding = 3 };

    // The record object is created and destroyed by the owner; it is not owned here.
    explicit QoZolLiveRecord(QoZolRecordTag* record = nullptr) : m_record(record) {}

    void SetRecord(QoZolRecordTag* record) { m_record = record; }
    QoZolRecordTag* GetRecord() const { return m_record; }
    // Back to hunting for a sync word, dropping any partial record.
    void Reset();

    unsigned m_phase = PhaseSync;
    unsigned m_bodyRead = 0;
    unsigned m_bodyRemaining = 0;
    bool m_outOfStep = false;
    unsigned m_paddingRemaining = 0;
    QoZolReadHeader m_header;
    QoZolRecordTag* m_record;
};

class QoZolReadLiveBase : public QoZolReadBase {
public:
    using QoZolReadBase::QoZolReadBase;

    virtual bool IsOpen() const = 0;

    // True when a complete record is in live.GetRecord(). Call until it returns false, then feed
    // the next chunk. Bytes that cannot start a record are skipped and counted.
    bool ReadLiveRecord(QoZolLiveRecord& live);
};

// Reads from a chunk in memory, which must stay valid while records are read from it.
class QoZolReadLiveMem : public QoZolReadLiveBase {
public:
    using QoZolReadLiveBase::QoZolReadLiveBase;

    // Makes `data` the current chunk (replacing whatever was left of the previous one).
    void SetData(const unsigned char* data, unsigned size) {
        m_data = data;
        m_remaining = data != nullptr ? size : 0;
    }
    unsigned GetRemaining() const { return m_remaining; }

    unsigned DoRead(void* buffer, unsigned size) override;
    // Forgets the chunk; the reader is closed until the next SetData.
    void Close() override { SetData(nullptr, 0); }
    bool IsOpen() const override { return m_data != nullptr; }

private:
    const unsigned char* m_data = nullptr;
    unsigned m_remaining = 0;
};
