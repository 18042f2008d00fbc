// Target-side records from the zol tests' encoder, independent of the record library.
#pragma once

#include <cstdint>
#include <string>

#include "zol-test-stream.h"

namespace tgtdb_test {

// A legacy record on KOR 1, or with sync24 != 0 a per-KOR record whose sync names the KOR.
inline Bytes Record(uint32_t id, const Bytes& body, uint32_t sync24 = 0, uint64_t time = 0) {
    return Encode({sync24 ? 2u : 1u, sync24, 1, id, time, body});
}

inline Bytes Words(std::initializer_list<uint32_t> words, const uint8_t* data = nullptr,
                   size_t size = 0) {
    Bytes out;
    for (uint32_t w : words)
        PutLe(out, w, 4);
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
