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

protected:
    // A source that holds its data in memory exposes it here: records lying whole in the view are
    // then cut out without going through DoRead byte by byte. Null when there is no such view.
    const unsigned char* m_view = nullptr;
    unsigned m_viewSize = 0;
    void TakeFromView(unsigned n) {
        m_view += n;
        m_viewSize -= n;
    }

private:
    // The direct path: hunts and decodes straight from the view. Returns 1 for a complete record,
    // 0 to carry on with the buffered path, -1 to restart the loop.
    int ReadFromView(QoZolLiveRecord& live);
};

// Reads from a chunk in memory, which must stay valid while records are read from it.
class QoZolReadLiveMem : public QoZolReadLiveBase {
public:
    using QoZolReadLiveBase::QoZolReadLiveBase;

    // Makes `data` the current chunk (replacing whatever was left of the previous one).
    void SetData(const unsigned char* data, unsigned size) {
        m_open = data != nullptr;
        m_view = data;
        m_viewSize = m_open ? size : 0;
    }
    unsigned GetRemaining() const { return m_viewSize; }

    unsigned DoRead(void* buffer, unsigned size) override;
    // Forgets the chunk; the reader is closed until the next SetData.
    void Close() override { SetData(nullptr, 0); }
    bool IsOpen() const override { return m_open; }

private:
    bool m_open = false;
};
