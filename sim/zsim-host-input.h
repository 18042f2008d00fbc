// What the host sends on the logging port: read, kept (in memory, the rx file), cut into records
// (the transcript) and acted on: the channel opens and closes, and the database server answers
// the hash and data requests through the pump's queue.
#pragma once

#include "zsim-control.h"
#include "zsim-db-server.h"
#include "zsim-worker.h"

#include <cstdio>
#include <deque>
#include <vector>

namespace zsim {

class HostInput {
public:
    HostInput(const ModemOptions& options, const MessageIds& ids, ModemCounters& counters,
              Clock::time_point start);

    // Reads all there is on `fd`; database answers go to `answers`.
    void Read(int fd, std::deque<Chunk>& answers);
    // The modem restarts: a half-received record is gone.
    void DropPending();
    void SetFiles(FILE* rx, FILE* transcript);
    void SetDbFault(DbFault fault) { db_.SetFault(fault); }

    const std::vector<HostRecord>& Records() const { return records_; }
    const Bytes& Raw() const { return raw_; }

private:
    void Take(WireRecord& wire, Clock::time_point now, std::deque<Chunk>& answers);

    MessageIds ids_;
    ModemCounters& counters_;
    Clock::time_point start_;
    bool keepRaw_;
    DbServer db_;
    WireParser parser_;
    std::vector<HostRecord> records_;
    Bytes raw_;
    FILE* rx_ = nullptr;
    FILE* transcript_ = nullptr;
};

} // namespace zsim
