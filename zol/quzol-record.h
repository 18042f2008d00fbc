// QoZolRecordTag: one ZOL record in memory. A record is a 12-byte header followed by a body
// padded to a multiple of four bytes. Header, body and padding live in one heap block so that a
// record can be written out in one piece from GetData().
//
// Header on the wire (all fields little-endian):
//   0  u32 sync word (selects the layout)      8  u16 record length in 32-bit words
//   4  u32 time stamp, low 32 bits            10  u16 packed word: id, padding count, KOR
//
// Layouts ("format kinds"):
//   1 (A, legacy)  sync 0x807F807F; packed: id bits 0..12, padding 13..14, KOR bit 15.
//   2 (B)          24-bit sync naming the KOR, header byte 3 = time bits 32..39;
//                  packed: id bits 0..13, padding 14..15.
//   3 (C)          sync 0x28C63FD7; packed: time bits 0..11, id 12..13, KOR 14..15; no padding.
#pragma once

#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "ZOL headers are kept in wire form, which needs a little-endian host");

// The 12 header bytes in wire form.
struct QoZolHeaderBytesTag {
    uint32_t syncWord;
    uint32_t time;
    uint16_t lengthWords;
    uint16_t packed;
};
static_assert(sizeof(QoZolHeaderBytesTag) == 12, "ZOL header must be 12 bytes");

enum QoZolFormat : unsigned {
    QoZolFormatUnknown = 0,
    QoZolFormatA = 1, // legacy layout, the only one the tool encodes
    QoZolFormatB = 2, // per-processor sync layout
    QoZolFormatC = 3,
};

// Sync words of the three layouts. Layout B values are 24 bits, compared under kQoZolSyncMaskB.
constexpr unsigned kQoZolSyncA = 0x807F807Fu;
constexpr unsigned kQoZolSyncC = 0x28C63FD7u;
constexpr unsigned kQoZolSyncMaskB = 0x00FFFFFFu;
constexpr unsigned kQoZolSyncBKor0 = 0xFB3E98u;    // written for KOR 0
constexpr unsigned kQoZolSyncBKor0Alt = 0xF2E05Fu; // accepted as KOR 0
constexpr unsigned kQoZolSyncBKor1 = 0x30CF29u;    // written for KOR 1
constexpr unsigned kQoZolSyncBKor1Alt = 0x78DAE4u; // accepted as KOR 1
constexpr unsigned kQoZolSyncBKor2 = 0xC426B9u;

constexpr unsigned kQoZolHeaderSize = 12;

// Every word on the wire is little-endian.
inline unsigned QoZolGetWord(const unsigned char* p) {
    return unsigned(p[0]) | (unsigned(p[1]) << 8) | (unsigned(p[2]) << 16) | (unsigned(p[3]) << 24);
}
inline void QoZolPutWord(unsigned char* p, unsigned value) {
    p[0] = static_cast<unsigned char>(value);
    p[1] = static_cast<unsigned char>(value >> 8);
    p[2] = static_cast<unsigned char>(value >> 16);
    p[3] = static_cast<unsigned char>(value >> 24);
}
// The largest body a decoded record may carry.
constexpr unsigned kQoZolMaxBody = 20480;

// Padding after a body of n bytes: 0..3.
inline unsigned QoZolPadding(unsigned bodySize) {
    return (4 - (bodySize & 3)) & 3;
}
// KOR number of a layout B sync value (low 24 bits), or -1 when the value names none.
int QoZolKorOfSyncB(unsigned sync24);

struct QoZolRecordTag {
    // A new record with room for `capacity` body bytes (rounded up to a multiple of 4), or null
    // when memory is exhausted. Empty body, total size 12, time/id/KOR 0.
    static QoZolRecordTag* Create(unsigned capacity, unsigned syncWord);
    // A copy whose capacity is exactly this record's body plus padding; null when out of memory.
    QoZolRecordTag* CreateOptimalCopy() const;
    // Frees the record and sets the pointer to null. Harmless on a null pointer.
    static void Destroy(QoZolRecordTag** record);

    // False (nothing changed) when n exceeds the capacity.
    bool SetBodySize(unsigned n);
    void SetId(unsigned id);
    // Layout A keeps only the lowest bit; other layouts switch the sync word (0, 1 or 2).
    void SetKor(unsigned kor);
    void SetTime(unsigned long long t);
    // Copies the 12 bytes in and decodes them. False when the length field does not fit the
    // capacity (the record is then emptied) or the body would exceed kQoZolMaxBody (the sizes
    // then hold the refused values; use the record only after a true result).
    bool SetHeader(const QoZolHeaderBytesTag& header);

    // The whole record (header, body, padding): GetTotalSize() bytes.
    const unsigned char* GetData() const {
        return reinterpret_cast<const unsigned char*>(&m_header);
    }
    unsigned char* GetBody() {
        return reinterpret_cast<unsigned char*>(&m_header) + kQoZolHeaderSize;
    }
    const unsigned char* GetBody() const { return GetData() + kQoZolHeaderSize; }
    const QoZolHeaderBytesTag& GetHeader() const { return m_header; }

    unsigned GetCapacity() const { return m_capacity; }
    unsigned GetBodySize() const { return m_bodySize; }
    unsigned GetTotalSize() const { return m_totalSize; }
    unsigned GetFormat() const { return m_formatKind; }
    unsigned GetSyncWord() const { return m_syncWord; }
    unsigned GetId() const { return m_id; }
    unsigned GetKor() const { return m_kor; }
    unsigned GetPadding() const { return m_padding; }
    unsigned long long GetTime() const { return m_time; }

    // Decoded fields; kept public so the record stays a plain block (never build one on the
    // stack: the body lives beyond the end of the struct).
    unsigned m_capacity;
    unsigned m_bodySize;
    unsigned m_totalSize;
    unsigned m_formatKind;
    unsigned m_syncWord; // layout B: the 24-bit value
    unsigned m_id;
    unsigned m_kor;
    unsigned m_padding;
    unsigned long long m_time;
    // Must stay the last member: the body follows it directly in the same block.
    QoZolHeaderBytesTag m_header;
};
