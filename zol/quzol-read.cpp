#include "quzol-read.h"

#include <cstring>

#include "quzol-write.h"

bool QoZolSyncCheck::Add(unsigned value, unsigned mask) {
    if (m_count >= kMaxPairs)
        return false;
    m_pairs[m_count++] = Pair{value, mask};
    return true;
}

bool QoZolSyncCheck::Match(unsigned word) {
    for (unsigned i = 0; i < m_count; ++i) {
        if ((word & m_pairs[i].mask) != m_pairs[i].value)
            continue;
        if (i != 0) {
            const Pair hit = m_pairs[i];
            m_pairs[i] = m_pairs[0];
            m_pairs[0] = hit;
        }
        return true;
    }
    return false;
}

void QoZolSyncCheck::AddLiveDefaults() {
    Add(kQoZolSyncA, 0xFFFFFFFFu);
    Add(kQoZolSyncBKor1Alt, kQoZolSyncMaskB);
    Add(kQoZolSyncBKor1, kQoZolSyncMaskB);
}

void QoZolSyncCheck::AddScriptDefaults() {
    Add(kQoZolSyncA, 0xFFFFFFFFu);
}

void QoZolSyncCheck::AddAllLayouts() {
    Add(kQoZolSyncA, 0xFFFFFFFFu);
    Add(kQoZolSyncBKor0, kQoZolSyncMaskB);
    Add(kQoZolSyncBKor1, kQoZolSyncMaskB);
    Add(kQoZolSyncBKor0Alt, kQoZolSyncMaskB);
    Add(kQoZolSyncBKor1Alt, kQoZolSyncMaskB);
    Add(kQoZolSyncBKor2, kQoZolSyncMaskB);
    Add(kQoZolSyncC, 0xFFFFFFFFu);
}

void QoZolReadBase::ResetStats() {
    m_resyncDetected = false;
    m_resyncOffset = 0;
    m_resyncSkipped = 0;
    m_lastGoodEnd = 0;
    m_lastGoodSkipped = 0;
    m_offset = 0;
    m_skipped = 0;
    m_recordsRead = 0;
    m_syncErrors = 0;
}

bool QoZolReadBase::CheckForResync(unsigned long long& offset, unsigned long long& skipped) {
    if (!m_resyncDetected)
        return false;
    offset = m_resyncOffset;
    skipped = m_resyncSkipped;
    m_resyncDetected = false;
    return true;
}

void QoZolReadBase::OnRecordComplete() {
    ++m_recordsRead;
    if (m_skipped != m_lastGoodSkipped) {
        m_resyncDetected = true;
        m_resyncOffset = m_lastGoodEnd;
        m_resyncSkipped = m_skipped - m_lastGoodSkipped;
    }
    m_lastGoodSkipped = m_skipped;
    m_lastGoodEnd = m_offset;
}

bool QoZolReadHeader::ReadBytes(QoZolReadBase& reader, unsigned n) {
    if (n > kQoZolHeaderSize)
        n = kQoZolHeaderSize;
    if (m_count < n) {
        const unsigned got = reader.DoRead(m_bytes.raw + m_count, n - m_count);
        m_count += got;
        m_taken += got;
    }
    return m_count >= n;
}

void QoZolReadHeader::ShiftData(unsigned k) {
    if (k >= m_count) {
        m_count = 0;
        return;
    }
    memmove(m_bytes.raw, m_bytes.raw + k, m_count - k);
    m_count -= k;
}

unsigned QoZolReadHeader::GetWord0() const {
    return m_bytes.header.syncWord;
}

const QoZolHeaderBytesTag& QoZolReadHeader::GetHeader() const {
    return m_bytes.header;
}

QoZolRecordTag* GenerateSyncErrorMessage(const char* name, unsigned id, unsigned long long offset,
                                         unsigned long long skipped,
                                         const QoZolRecordTag* templateRecord) {
    if (skipped == 0 || templateRecord == nullptr)
        return nullptr;
    ZvAString text;
    text.Printf("%s stream sync error detected at offset '0x%08llX', skipping '%llu' bytes",
                name != nullptr ? name : "", offset, skipped);
    const unsigned bodySize = static_cast<uint16_t>(text.size() + 1);
    QoZolRecordTag* record = QoZolRecordTag::Create(bodySize, templateRecord->GetSyncWord());
    if (record == nullptr)
        return nullptr;
    record->SetBodySize(bodySize);
    memcpy(record->GetBody(), text.c_str(), bodySize);
    record->SetId(id);
    record->SetTime(templateRecord->GetTime());
    record->SetKor(templateRecord->GetKor());
    return record;
}

QoZolRecordTag* CheckAndHandleResyncErrors(const char* name, QoZolReadBase& reader, unsigned id,
                                           const QoZolRecordTag* record) {
    if (id == 0xFFFFFFFFu || record == nullptr)
        return nullptr;
    unsigned long long offset = 0;
    unsigned long long skipped = 0;
    if (!reader.CheckForResync(offset, skipped))
        return nullptr;
    return GenerateSyncErrorMessage(name, id, offset, skipped, record);
}

QoZolRecordTag* CheckAndHandleResyncErrors(QoZolReadBase& reader, unsigned id,
                                           const QoZolRecordTag* record) {
    if (record == nullptr)
        return nullptr;
    ZvAString name;
    name.Printf("KOR%u", record->GetKor());
    return CheckAndHandleResyncErrors(name.c_str(), reader, id, record);
}

bool CheckAndHandleResyncErrors(QoZolWrite& writer, const char* name, QoZolReadBase& reader,
                                unsigned id, const QoZolRecordTag* record) {
    QoZolRecordTag* report = name != nullptr ? CheckAndHandleResyncErrors(name, reader, id, record)
                                             : CheckAndHandleResyncErrors(reader, id, record);
    if (report == nullptr)
        return false;
    const bool written = writer.WriteRecord(report);
    QoZolRecordTag::Destroy(&report);
    return written;
}
