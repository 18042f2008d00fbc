// A small encoder of target-side records for the extraction tests, written from the wire format
// alone so that it cannot share a mistake with the record library.
#pragma once

#include <cstdint>
#include <vector>

namespace tgtdb_test {

using Bytes = std::vector<uint8_t>;

inline void PutWord(Bytes& out, uint32_t w) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(uint8_t(w >> (8 * i)));
    }
}

inline void PutHalf(Bytes& out, uint32_t h) {
    out.push_back(uint8_t(h));
    out.push_back(uint8_t(h >> 8));
}

inline unsigned Padding(size_t n) {
    return unsigned((4 - n % 4) % 4);
}

// Legacy layout: sync 7F 80 7F 80, 13-bit id, padding count in bits 13..14, KOR in bit 15.
inline Bytes LegacyRecord(uint32_t id, const Bytes& body, uint32_t kor = 1, uint32_t time = 0) {
    unsigned pad = Padding(body.size());
    Bytes out;
    PutWord(out, 0x807F807F);
    PutWord(out, time);
    PutHalf(out, uint32_t((12 + body.size() + pad) / 4));
    PutHalf(out, (id & 0x1FFF) | (pad << 13) | ((kor & 1) << 15));
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), pad, 0xEE); // padding content carries no meaning
    return out;
}

// Per-processor layout: 24-bit sync naming the KOR, byte 3 = time bits 32..39, 14-bit id,
// padding count in bits 14..15.
inline Bytes LayoutBRecord(uint32_t sync24, uint32_t id, const Bytes& body, uint64_t time = 0) {
    unsigned pad = Padding(body.size());
    Bytes out;
    out.push_back(uint8_t(sync24));
    out.push_back(uint8_t(sync24 >> 8));
    out.push_back(uint8_t(sync24 >> 16));
    out.push_back(uint8_t(time >> 32));
    PutWord(out, uint32_t(time));
    PutHalf(out, uint32_t((12 + body.size() + pad) / 4));
    PutHalf(out, (id & 0x3FFF) | (pad << 14));
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), pad, 0x55);
    return out;
}

inline Bytes HashCnfBody(uint32_t status, uint32_t hash, uint32_t size) {
    Bytes body;
    PutWord(body, status);
    PutWord(body, hash);
    PutWord(body, size);
    return body;
}

inline Bytes DataCnfBody(uint32_t status, uint32_t more, const uint8_t* data, size_t size) {
    Bytes body;
    PutWord(body, status);
    PutWord(body, more);
    body.insert(body.end(), data, data + size);
    return body;
}

// The 16 bytes of a request as the target must receive them: legacy header, time 0, length
// field 4, the id with KOR 1 in bit 15, a body of one zero word.
inline Bytes ExpectedRequest(uint32_t id) {
    Bytes out = {0x7F, 0x80, 0x7F, 0x80, 0, 0, 0, 0, 0x04, 0x00};
    out.push_back(uint8_t(id));
    out.push_back(uint8_t((id >> 8) | 0x80));
    out.insert(out.end(), 4, 0);
    return out;
}

// A database image whose bytes differ from position to position.
inline Bytes PatternData(size_t size, uint32_t seed = 1) {
    Bytes out(size);
    uint32_t x = seed * 2654435761u + 12345;
    for (size_t i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345;
        out[i] = uint8_t(x >> 16);
    }
    return out;
}

inline void Append(Bytes& to, const Bytes& from) {
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace tgtdb_test
