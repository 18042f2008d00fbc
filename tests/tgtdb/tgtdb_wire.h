// A small encoder of target-side records for the extraction tests, written from the wire format
// alone so that it cannot share a mistake with the record library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tgtdb_test {

using Bytes = std::vector<uint8_t>;

inline void Put(Bytes& out, uint32_t value, int size = 4) {
    for (int i = 0; i < size; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

// Layout A: sync 7F 80 7F 80, 13-bit id, padding count in bits 13..14, KOR in bit 15. Layout B
// (sync24 != 0): 24-bit sync naming the KOR, byte 3 = time bits 32..39, padding in bits 14..15.
inline Bytes Record(uint32_t id, const Bytes& body, uint32_t sync24 = 0, uint64_t time = 0) {
    uint32_t pad = (4 - body.size() % 4) % 4;
    Bytes out;
    Put(out, sync24 ? sync24 | uint32_t(time >> 32) << 24 : 0x807F807F);
    Put(out, uint32_t(time));
    Put(out, uint32_t((12 + body.size() + pad) / 4), 2);
    Put(out, sync24 ? id | pad << 14 : id | pad << 13 | 1u << 15, 2);
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), pad, 0xEE); // padding content carries no meaning
    return out;
}

inline Bytes Words(std::initializer_list<uint32_t> words, const uint8_t* data = nullptr,
                   size_t size = 0) {
    Bytes out;
    for (uint32_t w : words)
        Put(out, w);
    out.insert(out.end(), data, data + size);
    return out;
}

// A database image whose bytes differ from position to position.
inline Bytes PatternData(size_t size, uint32_t seed = 1) {
    Bytes out(size);
    uint32_t x = seed * 2654435761u;
    for (auto& b : out) {
        x = x * 1103515245u + 12345;
        b = uint8_t(x >> 16);
    }
    return out;
}

inline std::string Text(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

} // namespace tgtdb_test
