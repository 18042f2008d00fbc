// A tiny record encoder written apart from the library, and garbage that cannot fake a sync word,
// to build reader input streams whose every byte the test knows.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "quzol-record.h"

using Bytes = std::vector<unsigned char>;

// A library record that destroys itself.
struct RecordDestroy {
    void operator()(QoZolRecordTag* r) const { QoZolRecordTag::Destroy(&r); }
};
using RecordPtr = std::unique_ptr<QoZolRecordTag, RecordDestroy>;

struct TestRecord {
    unsigned layout = 1; // 1 legacy, 2 per-KOR sync, 3 short-time layout
    unsigned sync24 = 0; // layout 2 only
    unsigned kor = 0;
    unsigned id = 0;
    unsigned long long time = 0;
    Bytes body;
};

inline void PutLe(Bytes& out, unsigned long long value, unsigned bytes) {
    for (unsigned i = 0; i < bytes; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// Layout 3 carries no padding count, so its bodies should be a multiple of four bytes long.
inline Bytes Encode(const TestRecord& r) {
    const unsigned n = static_cast<unsigned>(r.body.size());
    const unsigned pad = r.layout == 3 ? 0 : (4 - n % 4) % 4;
    Bytes out;
    PutLe(out,
          r.layout == 1   ? 0x807F807Full
          : r.layout == 2 ? r.sync24 | (r.time >> 32 & 0xFF) << 24
                          : 0x28C63FD7ull,
          4);
    PutLe(out, r.layout == 3 ? 0 : r.time & 0xFFFFFFFF, 4);
    PutLe(out, (12 + n + pad) / 4, 2);
    PutLe(out,
          r.layout == 1   ? (r.id & 0x1FFF) | pad << 13 | (r.kor & 1) << 15
          : r.layout == 2 ? (r.id & 0x3FFF) | pad << 14
                          : (r.time & 0xFFF) | (r.id & 3) << 12 | (r.kor & 3) << 14,
          2);
    out.insert(out.end(), r.body.begin(), r.body.end());
    out.insert(out.end(), pad, 0xEE);
    return out;
}

// True when the 4 bytes at p could be taken for the start of a record of any layout.
inline bool LooksLikeSync(const unsigned char* p) {
    const uint32_t word = p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
    const uint32_t low = word & 0xFFFFFF;
    return word == 0x807F807F || word == 0x28C63FD7 || low == 0xFB3E98 || low == 0xF2E05F ||
           low == 0x30CF29 || low == 0x78DAE4 || low == 0xC426B9;
}

// Appends `length` random bytes, re-rolling any byte that would let a window starting in the
// garbage (and reaching into `next`, the bytes that will follow) look like a sync word.
inline void AppendGarbage(Bytes& out, unsigned length, const Bytes& next, std::mt19937& rng) {
    const size_t start = out.size();
    for (unsigned i = 0; i < length; ++i)
        out.push_back(static_cast<unsigned char>(rng()));
    out.insert(out.end(), next.begin(), next.begin() + std::min<size_t>(3, next.size()));
    for (bool clean = false; !clean;) {
        clean = true;
        for (size_t i = start; i < start + length && i + 4 <= out.size(); ++i) {
            if (LooksLikeSync(&out[i])) {
                out[i] = static_cast<unsigned char>(rng());
                clean = false;
            }
        }
    }
    out.resize(start + length);
}

inline Bytes RandomBody(unsigned size, std::mt19937& rng) {
    Bytes body(size);
    for (auto& b : body)
        b = static_cast<unsigned char>(rng());
    return body;
}
