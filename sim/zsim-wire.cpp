#include "zsim-wire.h"

#include <cstring>

namespace zsim {

namespace {

uint16_t GetU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

// The KOR number a layout B sync word stands for, or -1 when it is none of the five.
int KorOfSyncB(uint32_t sync24) {
    switch (sync24) {
    case kSyncBKor0:
    case kSyncBKor0Alt:
        return 0;
    case kSyncBKor1:
    case kSyncBKor1Alt:
        return 1;
    case kSyncBKor2:
        return 2;
    default:
        return -1;
    }
}

// Which layout starts at p (4 bytes available), or 0 when none does.
unsigned LayoutAt(const uint8_t* p) {
    uint32_t word = GetU32(p);
    if (word == kSyncA) {
        return 1;
    }
    if (word == kSyncC) {
        return 3;
    }
    return KorOfSyncB(word & 0xFFFFFF) >= 0 ? 2 : 0;
}

} // namespace

size_t RecordBodySize(Layout layout, const uint8_t* record, size_t size) {
    if (size < 12) {
        return 0;
    }
    uint16_t packed = GetU16(record + 10);
    unsigned pad = 0;
    if (layout == Layout::A) {
        pad = (packed >> 13) & 3;
    } else if (layout == Layout::B) {
        pad = packed >> 14;
    }
    return size >= 12 + pad ? size - 12 - pad : 0;
}

size_t WireRecord::BodySize() const {
    return RecordBodySize(layout, bytes.data(), bytes.size());
}

MessageIds MessageIds::FromBase(unsigned base) {
    unsigned b = base == 0 ? 0x35 : base;
    return MessageIds{b, b + 1, b + 6, b + 7, b + 8, b + 9, b + 10, b + 11};
}

void PutU32(Bytes& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

uint32_t GetU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

Bytes EncodeRecord(Layout layout, unsigned kor, unsigned id, uint64_t time, const uint8_t* body,
                   size_t bodySize, bool altSync) {
    unsigned pad = static_cast<unsigned>((4 - bodySize % 4) % 4);
    size_t total = 12 + bodySize + pad;
    Bytes out;
    out.reserve(total);
    uint16_t packed = 0;
    uint32_t timeLow = static_cast<uint32_t>(time);
    if (layout == Layout::A) {
        PutU32(out, kSyncA);
        packed = static_cast<uint16_t>((id & 0x1FFF) | (pad << 13) | ((kor & 1) << 15));
    } else if (layout == Layout::B) {
        uint32_t sync = kor == 0   ? (altSync ? kSyncBKor0Alt : kSyncBKor0)
                        : kor == 1 ? (altSync ? kSyncBKor1Alt : kSyncBKor1)
                                   : kSyncBKor2;
        PutU32(out, sync | (static_cast<uint32_t>((time >> 32) & 0xFF) << 24));
        packed = static_cast<uint16_t>((id & 0x3FFF) | (pad << 14));
    } else {
        PutU32(out, kSyncC);
        packed = static_cast<uint16_t>((time & 0xFFF) | ((id & 3) << 12) | ((kor & 3) << 14));
        timeLow = 0;
    }
    PutU32(out, timeLow);
    uint16_t words = static_cast<uint16_t>(total / 4);
    out.push_back(static_cast<uint8_t>(words));
    out.push_back(static_cast<uint8_t>(words >> 8));
    out.push_back(static_cast<uint8_t>(packed));
    out.push_back(static_cast<uint8_t>(packed >> 8));
    out.insert(out.end(), body, body + bodySize);
    out.resize(total, 0);
    return out;
}

bool DecodeHostTime(const uint8_t* body, size_t size, uint64_t& usEpoch, uint64_t& usMidnight) {
    if (size < 16) {
        return false;
    }
    usEpoch = (static_cast<uint64_t>(GetU32(body)) << 32) | GetU32(body + 4);
    usMidnight = (static_cast<uint64_t>(GetU32(body + 8)) << 32) | GetU32(body + 12);
    return true;
}

size_t WireParser::Feed(const uint8_t* data, size_t size, std::vector<WireRecord>& out) {
    buffer_.insert(buffer_.end(), data, data + size);
    size_t found = 0;
    size_t pos = 0;
    while (buffer_.size() - pos >= 4) {
        const uint8_t* p = buffer_.data() + pos;
        unsigned kind = LayoutAt(p);
        if (kind == 0) {
            ++pos;
            ++skipped_;
            continue;
        }
        if (buffer_.size() - pos < 12) {
            break;
        }
        uint16_t packed = GetU16(p + 10);
        unsigned pad = kind == 1 ? (packed >> 13) & 3 : kind == 2 ? packed >> 14 : 0;
        size_t total = static_cast<size_t>(GetU16(p + 8)) * 4;
        if (total < 12 + pad || total - 12 - pad > kMaxBody) {
            ++pos;
            ++skipped_;
            continue;
        }
        if (buffer_.size() - pos < total) {
            break;
        }
        WireRecord record;
        record.layout = static_cast<Layout>(kind);
        if (kind == 1) {
            record.id = packed & 0x1FFF;
            record.kor = packed >> 15;
            record.time = GetU32(p + 4);
        } else if (kind == 2) {
            record.id = packed & 0x3FFF;
            record.kor = static_cast<unsigned>(KorOfSyncB(GetU32(p) & 0xFFFFFF));
            record.time = (static_cast<uint64_t>(p[3]) << 32) | GetU32(p + 4);
        } else {
            record.id = (packed >> 12) & 3;
            record.kor = packed >> 14;
            record.time = packed & 0xFFF;
        }
        record.offset = consumed_ + pos;
        record.bytes.assign(p, p + total);
        out.push_back(std::move(record));
        ++found;
        pos += total;
    }
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(pos));
    consumed_ += pos;
    return found;
}

void WireParser::DropPending() {
    skipped_ += buffer_.size();
    consumed_ += buffer_.size();
    buffer_.clear();
}

} // namespace zsim
