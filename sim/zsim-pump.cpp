#include "zsim-pump.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace zsim {

Pump::Pump(const GeneratorOptions& options, const MessageIds& ids, ModemCounters& counters)
    : options_(options), counters_(counters), generator_(options, ids),
      rate_(options.bytesPerSecond) {}

void Pump::Restart(Clock::time_point now) {
    lastChunkEnd_ = now;
    lastRefill_ = now;
    sentThisPort_ = 0;
}

uint64_t Pump::Drop() {
    uint64_t dropped = haveCurrent_ ? current_.bytes.size() - current_.sent : 0;
    for (const Chunk& chunk : queue_) {
        dropped += chunk.bytes.size();
    }
    haveCurrent_ = false;
    queue_.clear();
    return dropped;
}

bool Pump::NextChunk(Clock::time_point now, int& timeout) {
    if (!queue_.empty()) {
        auto due = lastChunkEnd_ + std::chrono::milliseconds(queue_.front().gapBeforeMs);
        if (queue_.front().gapBeforeMs != 0 && now < due) {
            timeout = std::min(timeout, MsUntil(now, due));
            return false;
        }
        current_ = std::move(queue_.front());
        queue_.pop_front();
        haveCurrent_ = true;
        return true;
    }
    if (!streamOn_ || counters_.generatorDone ||
        !(counters_.channelOpen || options_.flowWithoutOpen)) {
        return false;
    }
    if (!options_.enabled || !generator_.Next(current_)) {
        counters_.generatorDone = options_.enabled;
        return false;
    }
    haveCurrent_ = true;
    return true;
}

bool Pump::WithinLimit(size_t& want) {
    if (!current_.stream || !options_.stopAfterBytes) {
        return true;
    }
    uint64_t left =
        options_.stopAfterBytes - std::min(counters_.streamBytes, options_.stopAfterBytes);
    want = std::min<uint64_t>(want, left);
    return left != 0;
}

bool Pump::WithinRate(Clock::time_point now, int& timeout, size_t& want) {
    if (!current_.stream || !rate_) {
        return true;
    }
    double cap = std::max(4096.0, rate_ / 20.0);
    double elapsed = std::chrono::duration<double>(now - lastRefill_).count();
    tokens_ = std::min(cap, tokens_ + elapsed * static_cast<double>(rate_));
    lastRefill_ = now;
    double enough = std::min<double>(static_cast<double>(want), 512.0);
    if (tokens_ < enough) {
        double waitMs = (enough - tokens_) * 1000.0 / static_cast<double>(rate_);
        timeout = std::min(timeout, std::max(1, static_cast<int>(waitMs + 1)));
        return false;
    }
    want = std::min<size_t>(want, static_cast<size_t>(tokens_));
    return true;
}

Faults::Due Pump::Write(int fd, Clock::time_point now, int& timeout, Faults& faults, bool& full) {
    full = false;
    size_t budget = 1 << 18; // then look at the host's side again
    while (budget > 0) {
        if (!haveCurrent_ && !NextChunk(now, timeout)) {
            return Faults::Due::None;
        }
        size_t want = std::min(current_.bytes.size() - current_.sent, budget);
        if (!WithinLimit(want)) {
            // Exactly the requested amount is out: the rest of this piece is never sent.
            counters_.generatorDone = true;
            haveCurrent_ = false;
            continue;
        }
        if (!WithinRate(now, timeout, want)) {
            return Faults::Due::None;
        }
        Faults::Due due =
            faults.BeforeWrite(current_.stream, counters_.streamBytes, sentThisPort_, want);
        if (due != Faults::Due::None) {
            return due;
        }
        ssize_t written = write(fd, current_.bytes.data() + current_.sent, want);
        if (written <= 0) {
            full = written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
            return Faults::Due::None;
        }
        Account(static_cast<size_t>(written));
        budget -= static_cast<size_t>(written);
        if (current_.stream && rate_) {
            tokens_ -= static_cast<double>(written);
        }
        if (current_.sent == current_.bytes.size()) {
            haveCurrent_ = false;
            lastChunkEnd_ = Clock::now();
        }
    }
    if (options_.stopAfterBytes && counters_.streamBytes >= options_.stopAfterBytes) {
        counters_.generatorDone = true;
    }
    return faults.AfterWrites(counters_.streamBytes, sentThisPort_);
}

void Pump::Account(size_t count) {
    const uint8_t* data = current_.bytes.data() + current_.sent;
    if (tee_) {
        std::fwrite(data, 1, count, tee_);
    }
    current_.sent += count;
    counters_.sent += count;
    sentThisPort_ += count;
    (current_.stream ? counters_.streamBytes : counters_.dbBytes) += count;
    if (current_.kind == Chunk::Garbage) {
        counters_.garbageBytes += count;
    }
    if (current_.sent == current_.bytes.size()) {
        if (current_.kind == Chunk::Record || current_.kind == Chunk::DbConfirm) {
            ++counters_.records;
            ++counters_.recordsByLayoutKor[static_cast<unsigned>(current_.layout) - 1]
                                          [std::min(current_.kor, 2u)];
        } else if (current_.kind == Chunk::Truncated) {
            ++counters_.truncatedRecords;
        }
    }
}

} // namespace zsim
