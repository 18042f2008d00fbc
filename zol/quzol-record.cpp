#include "quzol-record.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "zv-log.h"

namespace {
// The struct up to and including the header; the body follows in the same block.
constexpr size_t kBodyOffset = offsetof(QoZolRecordTag, m_header) + kQoZolHeaderSize;

// Layout A packs the padding in bits 13..14, every other layout in bits 14..15.
void StorePadding(QoZolRecordTag& r) {
    if (r.m_formatKind == QoZolFormatA)
        r.m_header.packed =
            static_cast<uint16_t>((r.m_header.packed & ~0x6000u) | (r.m_padding << 13));
    else
        r.m_header.packed =
            static_cast<uint16_t>((r.m_header.packed & 0x3FFFu) | (r.m_padding << 14));
}

QoZolRecordTag* Allocate(unsigned capacity) {
    // Never less than the struct itself, whose tail padding may reach past the header.
    const size_t size = kBodyOffset + capacity;
    void* block = malloc(size < sizeof(QoZolRecordTag) ? sizeof(QoZolRecordTag) : size);
    if (block == nullptr)
        return nullptr;
    QoZolRecordTag* record = new (block) QoZolRecordTag;
    record->m_capacity = capacity;
    return record;
}
} // namespace

int QoZolKorOfSyncB(unsigned sync24) {
    switch (sync24 & kQoZolSyncMaskB) {
    case kQoZolSyncBKor0:
    case kQoZolSyncBKor0Alt:
        return 0;
    case kQoZolSyncBKor1:
    case kQoZolSyncBKor1Alt:
        return 1;
    case kQoZolSyncBKor2:
        return 2;
    default:
        return -1;
    }
}

QoZolRecordTag* QoZolRecordTag::Create(unsigned capacity, unsigned syncWord) {
    // A capacity that cannot be rounded up within 32 bits can never be allocated.
    if (capacity > ~3u)
        return nullptr;
    capacity = (capacity + 3u) & ~3u;
    QoZolRecordTag* r = Allocate(capacity);
    if (r == nullptr)
        return nullptr;
    r->m_bodySize = 0;
    r->m_totalSize = kQoZolHeaderSize;
    r->m_id = 0;
    r->m_kor = 0;
    r->m_padding = 0;
    r->m_time = 0;
    r->m_header.syncWord = syncWord;
    r->m_header.time = 0;
    r->m_header.lengthWords = kQoZolHeaderSize / 4;
    r->m_header.packed = 0;
    r->m_syncWord = syncWord;
    if (syncWord == kQoZolSyncA) {
        r->m_formatKind = QoZolFormatA;
    } else if (QoZolKorOfSyncB(syncWord) >= 0 && syncWord <= kQoZolSyncMaskB) {
        r->m_formatKind = QoZolFormatB;
    } else {
        r->m_formatKind = QoZolFormatUnknown;
        ZvLog::Warning("%s:%d, Unknown sync word 0x%08X.", "Create", __LINE__, syncWord);
    }
    return r;
}

QoZolRecordTag* QoZolRecordTag::CreateOptimalCopy() const {
    QoZolRecordTag* r = Allocate(m_bodySize + m_padding);
    if (r == nullptr)
        return nullptr;
    const unsigned capacity = r->m_capacity;
    memcpy(static_cast<void*>(r), this, kBodyOffset + m_bodySize + m_padding);
    r->m_capacity = capacity;
    return r;
}

void QoZolRecordTag::Destroy(QoZolRecordTag** record) {
    if (record == nullptr || *record == nullptr)
        return;
    (*record)->~QoZolRecordTag();
    free(*record);
    *record = nullptr;
}

bool QoZolRecordTag::SetBodySize(unsigned n) {
    if (n > m_capacity)
        return false;
    m_bodySize = n;
    m_padding = QoZolPadding(n);
    m_totalSize = n + kQoZolHeaderSize + m_padding;
    m_header.lengthWords = static_cast<uint16_t>(m_totalSize / 4);
    StorePadding(*this);
    return true;
}

void QoZolRecordTag::SetId(unsigned id) {
    if (m_formatKind == QoZolFormatA) {
        m_id = id & 0x1FFFu;
        m_header.packed = static_cast<uint16_t>((m_header.packed & ~0x1FFFu) | m_id);
    } else {
        m_id = id & 0x3FFFu;
        m_header.packed = static_cast<uint16_t>((m_header.packed & ~0x3FFFu) | m_id);
    }
}

void QoZolRecordTag::SetKor(unsigned kor) {
    if (m_formatKind == QoZolFormatA) {
        m_kor = kor & 1u;
        m_header.packed = static_cast<uint16_t>((m_header.packed & 0x7FFFu) | (m_kor << 15));
        return;
    }
    unsigned sync = m_header.syncWord & kQoZolSyncMaskB;
    switch (kor) {
    case 0:
        if (sync != kQoZolSyncBKor0 && sync != kQoZolSyncBKor0Alt)
            sync = kQoZolSyncBKor0;
        break;
    case 1:
        if (sync != kQoZolSyncBKor1 && sync != kQoZolSyncBKor1Alt)
            sync = kQoZolSyncBKor1;
        break;
    case 2:
        sync = kQoZolSyncBKor2;
        break;
    default:
        ZvLog::Warning("%s:%d, Invalid KOR number %u.", "SetKor", __LINE__, kor);
        return;
    }
    // Byte 3 carries time bits 32..39 and survives the change of processor.
    m_header.syncWord = (m_header.syncWord & ~kQoZolSyncMaskB) | sync;
    m_syncWord = sync;
    m_kor = kor;
}

void QoZolRecordTag::SetTime(unsigned long long t) {
    m_time = t;
    m_header.time = static_cast<uint32_t>(t);
    if (m_formatKind == QoZolFormatB)
        m_header.syncWord = (m_header.syncWord & kQoZolSyncMaskB) |
                            (static_cast<unsigned>((t >> 32) & 0xFFu) << 24);
}

bool QoZolRecordTag::SetHeader(const QoZolHeaderBytesTag& header) {
    m_header = header;
    const unsigned word0 = header.syncWord;
    const unsigned packed = header.packed;
    if (word0 == kQoZolSyncC) {
        m_formatKind = QoZolFormatC;
        m_syncWord = word0;
        m_time = packed & 0xFFFu;
        m_id = (packed >> 12) & 3u;
        m_kor = packed >> 14;
        m_padding = 0;
    } else if (word0 == kQoZolSyncA) {
        m_formatKind = QoZolFormatA;
        m_syncWord = word0;
        m_time = header.time;
        m_id = packed & 0x1FFFu;
        m_padding = (packed >> 13) & 3u;
        m_kor = packed >> 15;
    } else {
        m_formatKind = QoZolFormatB;
        m_syncWord = word0 & kQoZolSyncMaskB;
        m_time = (static_cast<unsigned long long>(word0 >> 24) << 32) | header.time;
        m_id = packed & 0x3FFFu;
        m_padding = packed >> 14;
        const int kor = QoZolKorOfSyncB(m_syncWord);
        if (kor >= 0)
            m_kor = static_cast<unsigned>(kor);
        else
            ZvLog::Warning("%s:%d, Invalid sync number 0x%08X.", "SetHeader", __LINE__, m_syncWord);
    }
    const unsigned total = header.lengthWords * 4u;
    if (total > static_cast<unsigned long long>(m_capacity) + kQoZolHeaderSize) {
        SetBodySize(0);
        return false;
    }
    // The sizes are taken as decoded even when the body is refused: a length below 3 + padding
    // words wraps the body size far above the limit, so one test rejects both. Callers use the
    // record only after a true result.
    m_totalSize = total;
    m_bodySize = total - kQoZolHeaderSize - m_padding;
    return m_bodySize <= kQoZolMaxBody;
}
