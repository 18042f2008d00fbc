#include "zsim-generator.h"

#include <cstring>

namespace zsim {

uint64_t Random::Next() {
    // xorshift64*
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1Dull;
}

uint32_t Random::Range(uint32_t low, uint32_t high) {
    if (high <= low) {
        return low;
    }
    return low + static_cast<uint32_t>((Next() >> 16) % (static_cast<uint64_t>(high) - low + 1));
}

Generator::Generator(const GeneratorOptions& options, const MessageIds& ids)
    : options_(options), ids_(ids), random_(options.seed) {
    if (options_.maxBody > kMaxBody) {
        options_.maxBody = kMaxBody;
    }
    if (options_.minBody > options_.maxBody) {
        options_.minBody = options_.maxBody;
    }
    if (!options_.playFile.empty()) {
        play_ = std::fopen(options_.playFile.c_str(), "rbe");
        playFailed_ = play_ == nullptr;
    }
}

Generator::~Generator() {
    if (play_) {
        std::fclose(play_);
    }
}

bool Generator::Next(Chunk& chunk) {
    if (!options_.playFile.empty()) {
        if (playFailed_) {
            return false;
        }
        chunk = Chunk{};
        chunk.kind = Chunk::Raw;
        chunk.bytes.resize(16384);
        size_t got = std::fread(chunk.bytes.data(), 1, chunk.bytes.size(), play_);
        chunk.bytes.resize(got);
        return got > 0;
    }
    if (garbageDue_) {
        garbageDue_ = false;
        chunk = MakeGarbage(random_.Range(1, options_.garbageMaxLen ? options_.garbageMaxLen : 1));
        return true;
    }
    if (truncatedDue_) {
        truncatedDue_ = false;
        chunk = MakeTruncated();
        return true;
    }
    chunk = MakeRecord();
    garbageDue_ = options_.garbageEvery && random_.Range(1, options_.garbageEvery) == 1;
    truncatedDue_ = options_.truncateEvery && random_.Range(1, options_.truncateEvery) == 1;
    return true;
}

unsigned Generator::PickId() {
    // Log message ids of the target; never one of the control or confirm ids, which the host
    // would take for an answer.
    for (;;) {
        unsigned id = random_.Range(0x100, 0x1FFF);
        if (id < ids_.open || id > ids_.hostTime) {
            return id;
        }
    }
}

unsigned Generator::PickBodySize() {
    // Most trace messages are short; a few carry dumps.
    uint32_t roll = random_.Range(0, 99);
    uint32_t high = roll < 70 ? 64 : roll < 95 ? 256 : options_.maxBody;
    if (high > options_.maxBody) {
        high = options_.maxBody;
    }
    uint32_t low = options_.minBody < high ? options_.minBody : high;
    return random_.Range(low, high);
}

Chunk Generator::MakeRecord() {
    Chunk chunk;
    chunk.kind = Chunk::Record;
    // Layout A carries only KOR 0 and 1; KOR 2 always uses layout B.
    unsigned korMask = options_.korMask & 7 ? options_.korMask & 7 : 1;
    bool useB = options_.layoutB && (!options_.layoutA || random_.Range(0, 1) == 1);
    if (!useB && (korMask & 3) == 0) {
        useB = true;
    }
    unsigned kor;
    do {
        kor = random_.Range(0, useB ? 2 : 1);
    } while (!(korMask & (1u << kor)));
    chunk.layout = useB ? Layout::B : Layout::A;
    chunk.kor = kor;
    time_[kor] += random_.Range(1, 5000);
    uint64_t time = useB ? time_[kor] & 0xFFFFFFFFFFull : time_[kor] & 0xFFFFFFFFull;

    Bytes body(PickBodySize());
    uint64_t seq = ++sequence_;
    // A sequence number first (handy when reading a capture by eye), then noise.
    uint64_t noise = 0;
    for (size_t i = 0; i < body.size(); ++i) {
        if (i < 8) {
            body[i] = static_cast<uint8_t>(seq >> (8 * i));
            continue;
        }
        if (i % 8 == 0) {
            noise = random_.Next();
        }
        body[i] = static_cast<uint8_t>(noise >> (8 * (i % 8)));
    }
    bool altSync = useB && kor < 2 && random_.Range(0, 9) == 0;
    chunk.bytes = EncodeRecord(chunk.layout, kor, PickId(), time, body, altSync);
    return chunk;
}

Chunk Generator::MakeGarbage(size_t count) {
    // Control characters only: none of them occurs in a sync word, so garbage never looks like
    // the start of a record, also not together with the record that follows it.
    Chunk chunk;
    chunk.kind = Chunk::Garbage;
    chunk.bytes.resize(count);
    for (auto& b : chunk.bytes) {
        b = static_cast<uint8_t>(random_.Next() >> 59);
    }
    return chunk;
}

Chunk Generator::MakeTruncated() {
    Chunk chunk = MakeRecord();
    chunk.kind = Chunk::Truncated;
    // Keep the whole header so that a reader commits to the record, then cut into the body.
    size_t total = chunk.bytes.size();
    size_t keep = total > 12 ? random_.Range(12, static_cast<uint32_t>(total - 1)) : total - 1;
    chunk.bytes.resize(keep);
    return chunk;
}

} // namespace zsim
