#include "zsim-host-input.h"

#include "zsim-transcript.h"

#include <unistd.h>

namespace zsim {

HostInput::HostInput(const ModemOptions& options, const MessageIds& ids, ModemCounters& counters,
                     Clock::time_point start)
    : ids_(ids), counters_(counters), start_(start), keepRaw_(options.keepRawInMemory),
      db_(options.db, ids, options.gen.seed) {}

void HostInput::SetFiles(FILE* rx, FILE* transcript) {
    rx_ = rx;
    transcript_ = transcript;
}

void HostInput::DropPending() {
    parser_.DropPending();
    counters_.rxSkipped = parser_.SkippedBytes();
}

void HostInput::Read(int fd, std::deque<Chunk>& answers) {
    uint8_t buffer[65536];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        auto now = Clock::now();
        size_t n = static_cast<size_t>(got);
        counters_.received += n;
        if (keepRaw_) {
            raw_.insert(raw_.end(), buffer, buffer + n);
        }
        if (rx_) {
            std::fwrite(buffer, 1, n, rx_);
        }
        std::vector<WireRecord> found;
        parser_.Feed(buffer, n, found);
        for (auto& wire : found) {
            Take(wire, now, answers);
        }
        counters_.rxSkipped = parser_.SkippedBytes();
    }
}

void HostInput::Take(WireRecord& wire, Clock::time_point now, std::deque<Chunk>& answers) {
    HostRecord record;
    record.id = wire.id;
    record.kor = wire.kor;
    record.layout = wire.layout;
    record.time = wire.time;
    record.offset = wire.offset;
    record.connection = counters_.connection;
    record.arrival = now;
    record.arrivalMs = std::chrono::duration<double, std::milli>(now - start_).count();
    record.bytes = wire.bytes;
    if (transcript_) {
        WriteTranscriptLine(transcript_, record);
    }
    ++counters_.hostRecords;
    ++counters_.hostRecordsById[wire.id];
    if (wire.id == ids_.open) {
        counters_.channelOpen = true;
    } else if (wire.id == ids_.close) {
        counters_.channelOpen = false;
    } else if (wire.id == ids_.hashReq) {
        ++counters_.hashRequests;
    } else if (wire.id == ids_.dataReq) {
        ++counters_.dataRequests;
    }
    db_.OnHostRecord(wire, answers);
    records_.push_back(std::move(record));
}

} // namespace zsim
