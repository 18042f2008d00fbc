#include "quzol-pcapng-export.h"

#include <cstdio>
#include <cstring>

#include "zv-time.h"

namespace {

// Message ids count from the open-channel id; 0x35 when the tool's -c is 0.
const unsigned kDefaultBaseId = 0x35;
const unsigned kHostTimeOffset = 11;
const unsigned kHostTimeBodySize = 16;
// A host time outside 2000..2100 is not one: a modem message that happens to share the id.
const long long kHostTimeLowUs = 946684800000000ll;
const long long kHostTimeHighUs = 4102444800000000ll;

} // namespace

QoZolPcapngExport::QoZolPcapngExport(QoPcapngWriter* writer, unsigned baseId)
    : m_writer(writer), m_hostTimeId((baseId != 0 ? baseId : kDefaultBaseId) + kHostTimeOffset),
      m_reader(&m_sync), m_record(QoZolRecordTag::Create(kQoZolMaxBody, kQoZolSyncA)),
      m_live(m_record) {
    m_sync.AddAllLayouts();
}

QoZolPcapngExport::~QoZolPcapngExport() {
    QoZolRecordTag::Destroy(&m_record);
}

bool QoZolPcapngExport::Feed(const unsigned char* data, unsigned size) {
    if (!IsReady())
        return false;
    m_chunk = data;
    m_reader.SetData(data, size);
    while (m_reader.ReadLiveRecord(m_live)) {
        const unsigned long long end = m_reader.GetOffset();
        GatherSkipped(end - m_record->GetTotalSize());
        FlushSkipped();
        EmitRecord();
        m_gatheredEnd = end;
    }
    // What was skipped since the last record lies between it and the record being assembled.
    GatherSkipped(m_reader.GetOffset() - PartialRecordBytes());

    if (size >= kQoZolHeaderSize) {
        memcpy(m_carry, data + size - kQoZolHeaderSize, kQoZolHeaderSize);
        m_carrySize = kQoZolHeaderSize;
    } else {
        const unsigned keep =
            m_carrySize < kQoZolHeaderSize - size ? m_carrySize : kQoZolHeaderSize - size;
        memmove(m_carry, m_carry + m_carrySize - keep, keep);
        memcpy(m_carry + keep, data, size);
        m_carrySize = keep + size;
    }
    m_chunkStart += size;
    m_chunk = nullptr;
    m_reader.Close();
    return m_writer == nullptr || !m_writer->Failed();
}

bool QoZolPcapngExport::Finish() {
    if (!IsReady())
        return false;
    FlushSkipped();
    // The record being assembled, or the bytes held while hunting for one.
    const bool inRecord = m_live.m_phase >= QoZolLiveRecord::PhaseBody;
    const unsigned char* tail = inRecord ? m_record->GetData() : m_live.m_header.GetBytes();
    const unsigned tailSize = inRecord ? PartialRecordBytes() : m_live.m_header.GetCount();
    if (tailSize != 0) {
        m_incomplete = tailSize;
        ZvAString what;
        what.Printf(tailSize == 1 ? "%u byte at the end of the stream that makes no whole record"
                                  : "%u bytes at the end of the stream that make no whole record",
                    tailSize);
        EmitSkipped(tail, tailSize, what.c_str());
    }
    m_live.Reset();
    return m_writer == nullptr || !m_writer->Failed();
}

unsigned QoZolPcapngExport::PartialRecordBytes() const {
    if (m_live.m_phase < QoZolLiveRecord::PhaseBody)
        return 0;
    return kQoZolHeaderSize + m_live.m_bodyRead + m_record->GetPadding() -
           m_live.m_paddingRemaining;
}

void QoZolPcapngExport::EmitRecord() {
    if (m_anchorAtArrival) {
        m_anchorAtArrival = false;
        m_clock.SetBase(ZvTime::UsSinceEpoch());
    }
    long long hostUs = 0;
    unsigned long long time;
    if (IsHostTime(hostUs)) {
        if (!m_sawHostTime) {
            m_sawHostTime = true;
            m_firstHostUs = hostUs;
            m_firstHostElapsed = m_clock.ClockElapsed();
        }
        time = m_clock.PinToHost(hostUs);
    } else {
        time = m_clock.Next(*m_record);
    }
    if (m_writer != nullptr)
        m_writer->WritePacket(time, kQoPcapngRecordDissector, m_record->GetData(),
                              m_record->GetTotalSize());
}

void QoZolPcapngExport::GatherSkipped(unsigned long long end) {
    if (m_writer == nullptr || end <= m_gatheredEnd) {
        m_gatheredEnd = end > m_gatheredEnd ? end : m_gatheredEnd;
        return;
    }
    while (m_gatheredEnd < end) {
        const unsigned long long room = kMaxSkippedPacket - m_skipped.size();
        const unsigned n =
            static_cast<unsigned>(end - m_gatheredEnd < room ? end - m_gatheredEnd : room);
        const size_t held = m_skipped.size();
        m_skipped.resize(held + n);
        CopyStream(m_gatheredEnd, n, m_skipped.data() + held);
        m_gatheredEnd += n;
        if (m_skipped.size() == kMaxSkippedPacket)
            FlushSkipped();
    }
}

void QoZolPcapngExport::FlushSkipped() {
    if (m_skipped.empty())
        return;
    ZvAString what;
    const unsigned size = static_cast<unsigned>(m_skipped.size());
    what.Printf(size == 1 ? "%u byte that belongs to no record"
                          : "%u bytes that belong to no record",
                size);
    EmitSkipped(m_skipped.data(), size, what.c_str());
    m_skipped.clear();
}

void QoZolPcapngExport::EmitSkipped(const unsigned char* data, unsigned size, const char* what) {
    if (m_writer == nullptr)
        return;
    if (m_anchorAtArrival) {
        m_anchorAtArrival = false;
        m_clock.SetBase(ZvTime::UsSinceEpoch());
    }
    m_writer->WritePacket(m_clock.Current(), kQoPcapngSkippedDissector, data, size, what);
}

void QoZolPcapngExport::CopyStream(unsigned long long position, unsigned size,
                                   unsigned char* out) const {
    if (position < m_chunkStart) {
        const unsigned back = static_cast<unsigned>(m_chunkStart - position);
        const unsigned n = back < size ? back : size;
        memcpy(out, m_carry + m_carrySize - back, n);
        out += n;
        size -= n;
        position += n;
    }
    if (size != 0)
        memcpy(out, m_chunk + (position - m_chunkStart), size);
}

bool QoZolPcapngExport::IsHostTime(long long& hostUs) const {
    if (m_record->GetFormat() != QoZolFormatA || m_record->GetId() != m_hostTimeId ||
        m_record->GetBodySize() != kHostTimeBodySize)
        return false;
    // The one big-endian pair on the wire: the high word first, each word little-endian.
    const unsigned char* body = m_record->GetBody();
    const unsigned long long us =
        (static_cast<unsigned long long>(QoZolGetWord(body)) << 32) | QoZolGetWord(body + 4);
    hostUs = static_cast<long long>(us);
    return hostUs >= kHostTimeLowUs && hostUs < kHostTimeHighUs;
}
