// The modem's log traffic: records of layouts A and B from KOR 0, 1 and 2 with plausible body
// sizes and rising time stamps, runs of garbage and truncated records, all from a fixed seed.
#pragma once

#include "zsim-options.h"
#include "zsim-wire.h"

#include <cstdio>

namespace zsim {

// A small generator of our own, so that a seed gives the same stream on every platform.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t Next();
    // Uniform in [low, high].
    uint32_t Range(uint32_t low, uint32_t high);

private:
    uint64_t state_;
};

// One piece of output, sent whole unless the port goes away or a byte limit cuts it.
struct Chunk {
    enum Kind { Record, Garbage, Truncated, Raw, DbConfirm };
    Kind kind = Raw;
    bool stream = true; // part of the log stream (counts towards its limit and rate)
    Layout layout = Layout::A;
    unsigned kor = 0;
    Bytes bytes;
    size_t sent = 0;
    unsigned gapBeforeMs = 0; // pause after the previous chunk before this one starts
};

class Generator {
public:
    Generator(const GeneratorOptions& options, const MessageIds& ids);
    ~Generator();
    Generator(const Generator&) = delete;
    Generator& operator=(const Generator&) = delete;

    // The next piece of the stream; false when a play file has ended (or cannot be read).
    bool Next(Chunk& chunk);
    Chunk MakeRecord();
    Chunk MakeGarbage(size_t count);
    Chunk MakeTruncated();

private:
    unsigned PickId();
    unsigned PickBodySize();

    GeneratorOptions options_;
    MessageIds ids_;
    Random random_;
    uint64_t sequence_ = 0;
    uint64_t time_[3] = {1000, 2000, 3000};
    FILE* play_ = nullptr;
    bool playFailed_ = false;
    bool garbageDue_ = false;
    bool truncatedDue_ = false;
};

} // namespace zsim
