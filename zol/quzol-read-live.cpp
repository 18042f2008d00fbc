#include "quzol-read-live.h"

#include <cstring>

void QoZolLiveRecord::Reset() {
    m_phase = PhaseSync;
    m_bodyRead = 0;
    m_bodyRemaining = 0;
    m_outOfStep = false;
    m_paddingRemaining = 0;
    m_header.Reset();
}

int QoZolReadLiveBase::ReadFromView(QoZolLiveRecord& live) {
    if (m_view == nullptr || live.m_header.GetCount() != 0)
        return 0;
    unsigned skip = 0;
    while (skip + 4 <= m_viewSize && !MatchSync(QoZolGetWord(m_view + skip)))
        ++skip;
    if (skip != 0) {
        if (!live.m_outOfStep) {
            live.m_outOfStep = true;
            ++m_syncErrors;
        }
        TakeFromView(skip);
        m_skipped += skip;
        m_offset += skip;
    }
    // A sync word near the end of the view (or none) is left to the buffered path.
    if (m_viewSize < kQoZolHeaderSize)
        return 0;
    QoZolHeaderBytesTag header;
    memcpy(&header, m_view, kQoZolHeaderSize);
    QoZolRecordTag* record = live.m_record;
    if (!record->SetHeader(header)) {
        TakeFromView(1);
        ++m_skipped;
        ++m_offset;
        ++m_syncErrors;
        return -1;
    }
    TakeFromView(kQoZolHeaderSize);
    m_offset += kQoZolHeaderSize;
    const unsigned rest = record->GetBodySize() + record->GetPadding();
    if (rest > m_viewSize) {
        // The record goes on in the next chunk.
        live.m_bodyRead = 0;
        live.m_bodyRemaining = record->GetBodySize();
        live.m_paddingRemaining = record->GetPadding();
        live.m_phase = QoZolLiveRecord::PhaseBody;
        return -1;
    }
    memcpy(record->GetBody(), m_view, rest);
    TakeFromView(rest);
    m_offset += rest;
    live.m_outOfStep = false;
    OnRecordComplete();
    return 1;
}

bool QoZolReadLiveBase::ReadLiveRecord(QoZolLiveRecord& live) {
    QoZolRecordTag* record = live.m_record;
    if (record == nullptr || !IsOpen())
        return false;
    QoZolReadHeader& header = live.m_header;
    for (;;) {
        switch (live.m_phase) {
        case QoZolLiveRecord::PhaseSync: {
            const int direct = ReadFromView(live);
            if (direct > 0)
                return true;
            if (direct < 0)
                continue;
        }
            if (!header.ReadBytes(*this, 4))
                return false;
            if (!MatchSync(header.GetWord0())) {
                // One sync error per loss of step, however long the gap.
                if (!live.m_outOfStep) {
                    live.m_outOfStep = true;
                    ++m_syncErrors;
                }
                header.ShiftData(1);
                ++m_skipped;
                ++m_offset;
                continue;
            }
            live.m_phase = QoZolLiveRecord::PhaseHeader;
            [[fallthrough]];
        case QoZolLiveRecord::PhaseHeader:
            if (!header.ReadBytes(*this, kQoZolHeaderSize))
                return false;
            if (!record->SetHeader(header.GetHeader())) {
                // Not a record after all: drop one byte and hunt on with the other eleven.
                header.ShiftData(1);
                ++m_skipped;
                ++m_offset;
                ++m_syncErrors;
                live.m_phase = QoZolLiveRecord::PhaseSync;
                continue;
            }
            header.Reset();
            m_offset += kQoZolHeaderSize;
            live.m_bodyRead = 0;
            live.m_bodyRemaining = record->GetBodySize();
            live.m_paddingRemaining = record->GetPadding();
            live.m_phase = QoZolLiveRecord::PhaseBody;
            [[fallthrough]];
        case QoZolLiveRecord::PhaseBody:
            if (live.m_bodyRemaining != 0) {
                const unsigned got =
                    DoRead(record->GetBody() + live.m_bodyRead, live.m_bodyRemaining);
                live.m_bodyRead += got;
                live.m_bodyRemaining -= got;
                m_offset += got;
                if (live.m_bodyRemaining != 0)
                    return false;
            }
            live.m_phase = QoZolLiveRecord::PhasePadding;
            [[fallthrough]];
        case QoZolLiveRecord::PhasePadding:
            if (live.m_paddingRemaining != 0) {
                // Kept behind the body so that the record can be passed on byte for byte.
                const unsigned done = record->GetPadding() - live.m_paddingRemaining;
                const unsigned got = DoRead(record->GetBody() + record->GetBodySize() + done,
                                            live.m_paddingRemaining);
                live.m_paddingRemaining -= got;
                m_offset += got;
                if (live.m_paddingRemaining != 0)
                    return false;
            }
            live.m_phase = QoZolLiveRecord::PhaseSync;
            live.m_outOfStep = false;
            OnRecordComplete();
            return true;
        default:
            live.Reset();
            break;
        }
    }
}

unsigned QoZolReadLiveMem::DoRead(void* buffer, unsigned size) {
    if (size > m_viewSize)
        size = m_viewSize;
    if (size != 0) {
        memcpy(buffer, m_view, size);
        TakeFromView(size);
    }
    return size;
}
