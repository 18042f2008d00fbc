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

bool QoZolReadLiveBase::ReadLiveRecord(QoZolLiveRecord& live) {
    QoZolRecordTag* record = live.m_record;
    if (record == nullptr || !IsOpen())
        return false;
    QoZolReadHeader& header = live.m_header;
    for (;;) {
        switch (live.m_phase) {
        case QoZolLiveRecord::PhaseSync:
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
    if (size > m_remaining)
        size = m_remaining;
    if (size != 0) {
        memcpy(buffer, m_data, size);
        m_data += size;
        m_remaining -= size;
    }
    return size;
}
