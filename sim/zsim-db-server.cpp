#include "zsim-db-server.h"

#include <cstdio>

namespace zsim {

namespace {

constexpr uint32_t kMaxAnnounced = 2097152;
constexpr unsigned kMaxChunk = kMaxBody - 8;

GeneratorOptions NoiseOptions(uint32_t seed) {
    GeneratorOptions options;
    options.seed = seed ^ 0xDB;
    options.maxBody = 256;
    return options;
}

} // namespace

DbServer::DbServer(const DbOptions& options, const MessageIds& ids, uint32_t seed)
    : options_(options), ids_(ids), noise_(NoiseOptions(seed), ids) {
    if (options_.chunkSize == 0) {
        options_.chunkSize = 1;
    }
    if (options_.chunkSize > kMaxChunk) {
        options_.chunkSize = kMaxChunk;
    }
}

uint32_t DbServer::HashOf(const Bytes& data) {
    uint32_t hash = 2166136261u; // FNV-1a
    for (uint8_t b : data) {
        hash = (hash ^ b) * 16777619u;
    }
    return hash ? hash : 1;
}

bool DbServer::LoadFile() {
    data_.clear();
    FILE* file = std::fopen(options_.zxFile.c_str(), "rb");
    if (!file) {
        return false;
    }
    uint8_t buffer[65536];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        data_.insert(data_.end(), buffer, buffer + got);
    }
    std::fclose(file);
    return true;
}

bool DbServer::OnHostRecord(const WireRecord& record, std::deque<Chunk>& out) {
    if (record.id == ids_.hashReq) {
        ++hashRequests_;
        AnswerHash(out);
        return true;
    }
    if (record.id == ids_.dataReq) {
        AnswerData(out);
        return true;
    }
    return false;
}

void DbServer::Queue(Bytes body, std::deque<Chunk>& out) {
    for (unsigned i = 0; i < options_.interleaveRecords; ++i) {
        Chunk noise = noise_.MakeRecord();
        noise.stream = false;
        out.push_back(std::move(noise));
    }
    if (options_.interleaveGarbage) {
        Chunk garbage = noise_.MakeGarbage(options_.interleaveGarbage);
        garbage.stream = false;
        out.push_back(std::move(garbage));
    }
    Chunk chunk;
    chunk.kind = Chunk::DbConfirm;
    chunk.stream = false;
    chunk.layout = options_.layout;
    chunk.kor = options_.kor;
    chunk.bytes = std::move(body);
    out.push_back(std::move(chunk));
}

void DbServer::AnswerHash(std::deque<Chunk>& out) {
    DbFault fault = options_.fault;
    if (options_.zxFile.empty() || fault == DbFault::Silence ||
        (fault == DbFault::SecondAttemptOnly && hashRequests_ < 2) || !LoadFile()) {
        return;
    }
    Bytes body;
    PutU32(body, fault == DbFault::HashStatus ? 1 : 0);
    PutU32(body, fault == DbFault::HashZero ? 0 : HashOf(data_));
    PutU32(body,
           fault == DbFault::Oversize ? kMaxAnnounced + 1 : static_cast<uint32_t>(data_.size()));
    Queue(EncodeRecord(options_.layout, options_.kor, ids_.hashCnf, 0, body), out);
}

void DbServer::AnswerData(std::deque<Chunk>& out) {
    DbFault fault = options_.fault;
    if (options_.zxFile.empty() || fault == DbFault::Silence || fault == DbFault::SilenceData) {
        return;
    }
    Bytes payload = data_;
    if (fault == DbFault::ShortData) {
        payload.resize(payload.size() > options_.faultBytes ? payload.size() - options_.faultBytes
                                                            : 0);
    } else if (fault == DbFault::TooMuchData) {
        for (unsigned i = 0; i < options_.faultBytes; ++i) {
            payload.push_back(static_cast<uint8_t>(i));
        }
    }
    size_t offset = 0;
    bool first = true;
    do {
        size_t size = payload.size() - offset;
        if (size > options_.chunkSize) {
            size = options_.chunkSize;
        }
        bool more = offset + size < payload.size();
        Bytes body;
        PutU32(body, fault == DbFault::DataStatus ? 1 : 0);
        PutU32(body, more ? 1 : 0);
        body.insert(body.end(), payload.begin() + static_cast<std::ptrdiff_t>(offset),
                    payload.begin() + static_cast<std::ptrdiff_t>(offset + size));
        size_t before = out.size();
        Queue(EncodeRecord(options_.layout, options_.kor, ids_.dataCnf, 0, body), out);
        if (!first && options_.dataGapMs) {
            out[before].gapBeforeMs = options_.dataGapMs;
        }
        first = false;
        offset += size;
    } while (offset < payload.size());
}

namespace {

// In the order of DbFault.
const char* const kDbFaultNames[] = {
    "none",     "silence",     "silence-data", "hash-status",   "hash-zero",
    "oversize", "data-status", "short-data",   "too-much-data", "second-attempt"};

static_assert(sizeof kDbFaultNames / sizeof *kDbFaultNames ==
                  static_cast<size_t>(DbFault::SecondAttemptOnly) + 1,
              "a name for each");

} // namespace

const char* DbFaultName(DbFault fault) {
    return kDbFaultNames[static_cast<size_t>(fault)];
}

bool DbFaultFromName(const std::string& name, DbFault& fault) {
    return FindName(kDbFaultNames, name, fault);
}

} // namespace zsim
