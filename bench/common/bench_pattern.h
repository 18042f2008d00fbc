// Pieces the pty benchmarks share: their clock and block size, the reproducible byte pattern their
// writers send, and a blocking write of a whole block.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace bench {

using Clock = std::chrono::steady_clock;

// What a writer sends and a reader checks at a time.
const size_t kBlock = 64 * 1024;

// xorshift64 bytes from a fixed seed, reproducible block by block, so a reader can check what it
// got without holding a copy.
struct Pattern {
    uint64_t state = 0x9E3779B97F4A7C15ull;
    void Fill(unsigned char* out, size_t size) {
        for (size_t i = 0; i < size; i += 8) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            const uint64_t v = state;
            for (size_t k = 0; k < 8 && i + k < size; ++k)
                out[i + k] = static_cast<unsigned char>(v >> (8 * k));
        }
    }
};

// Writes all of `data`, retrying after signals; false on any other failure.
inline bool WriteAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace bench
