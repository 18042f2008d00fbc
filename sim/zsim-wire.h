// The simulator's own view of ZOL records on the wire: a minimal encoder and an incremental
// parser. Written independently of the tool's record library, so that a mistake in one is
// caught by the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zsim {

using Bytes = std::vector<uint8_t>;

// Header layouts: A is the legacy 7F 80 7F 80 layout, B the per-processor 24-bit sync layout,
// C the short layout with a 12-bit time stamp.
enum class Layout : unsigned { A = 1, B = 2, C = 3 };

constexpr uint32_t kSyncA = 0x807F807F;
constexpr uint32_t kSyncC = 0x28C63FD7;
constexpr uint32_t kSyncBKor0 = 0xFB3E98;
constexpr uint32_t kSyncBKor0Alt = 0xF2E05F;
constexpr uint32_t kSyncBKor1 = 0x30CF29;
constexpr uint32_t kSyncBKor1Alt = 0x78DAE4;
constexpr uint32_t kSyncBKor2 = 0xC426B9;
constexpr unsigned kMaxBody = 20480;

// Fields of one record as found on the wire.
struct WireRecord {
    Layout layout = Layout::A;
    unsigned id = 0;
    unsigned kor = 0;
    uint64_t time = 0;
    uint64_t offset = 0; // position of its first byte in the stream fed to the parser
    Bytes bytes;         // the whole record: header, body and padding
    size_t BodySize() const;
    const uint8_t* Body() const { return bytes.data() + 12; }
};

// Message ids derived from the base id as the host derives them (0 means 0x35).
struct MessageIds {
    unsigned open, close, flush, hashReq, hashCnf, dataReq, dataCnf, hostTime;
    static MessageIds FromBase(unsigned base);
};

// Encodes one record. Layout A keeps bit 0 of kor; layout B picks the sync word by kor (0, 1, 2;
// altSync selects the second accepted word of KOR 0 and 1); layout C keeps 2 bits of id, 2 of kor
// and 12 of time. Padding bytes are zero.
Bytes EncodeRecord(Layout layout, unsigned kor, unsigned id, uint64_t time, const uint8_t* body,
                   size_t bodySize, bool altSync = false);
inline Bytes EncodeRecord(Layout layout, unsigned kor, unsigned id, uint64_t time,
                          const Bytes& body, bool altSync = false) {
    return EncodeRecord(layout, kor, id, time, body.data(), body.size(), altSync);
}

// Body size of a whole record of the given layout (its size minus header and padding).
size_t RecordBodySize(Layout layout, const uint8_t* record, size_t size);

// Little-endian helpers for building and reading bodies.
void PutU32(Bytes& out, uint32_t value);
uint32_t GetU32(const uint8_t* p);

// The host-time body: microseconds since the epoch and since midnight, each as two words with the
// high word first. Returns false when the body is shorter than 16 bytes.
bool DecodeHostTime(const uint8_t* body, size_t size, uint64_t& usEpoch, uint64_t& usMidnight);

// Cuts a byte stream into records. Accepts layouts A, B (the five sync words) and C; bytes that do
// not start a plausible record are skipped one at a time and counted. A record split across calls
// is completed by later calls.
class WireParser {
public:
    // Appends bytes; every completed record is appended to out. Returns the number of records.
    size_t Feed(const uint8_t* data, size_t size, std::vector<WireRecord>& out);
    uint64_t SkippedBytes() const { return skipped_; }
    size_t Pending() const { return buffer_.size(); }
    // Drops a partial record (its bytes count as skipped); offsets keep counting.
    void DropPending();

private:
    Bytes buffer_;
    uint64_t consumed_ = 0; // stream offset of buffer_[0]
    uint64_t skipped_ = 0;
};

} // namespace zsim
