// The target's side of the database extraction: answers the hash request with a hash confirm
// and the data request with data confirms cut from a .zx file, with optional faults.
#pragma once

#include "zsim-generator.h"
#include "zsim-options.h"

#include <deque>
#include <string>

namespace zsim {

class DbServer {
public:
    DbServer(const DbOptions& options, const MessageIds& ids, uint32_t seed);

    // Takes one record from the host; queues the answers (with anything interleaved) on out.
    // Returns true when the record was a request this server deals with.
    bool OnHostRecord(const WireRecord& record, std::deque<Chunk>& out);
    void SetFault(DbFault fault) { options_.fault = fault; }
    const DbOptions& Options() const { return options_; }
    // The hash announced for the file's contents (never 0).
    static uint32_t HashOf(const Bytes& data);

private:
    void Queue(Bytes confirm, std::deque<Chunk>& out);
    void AnswerHash(std::deque<Chunk>& out);
    void AnswerData(std::deque<Chunk>& out);
    bool LoadFile();

    DbOptions options_;
    MessageIds ids_;
    Generator noise_;
    Bytes data_;
    unsigned hashRequests_ = 0;
};

} // namespace zsim
