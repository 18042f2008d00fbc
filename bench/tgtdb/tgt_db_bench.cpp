// Extraction of a 2 MiB database over a pseudo-terminal, against the time the same bytes take to
// cross the same kind of pty raw.
//
// Both runs use the simulated modem as the writer and the tool's serial interface as the reader:
// - raw: the host opens the port, the modem is handed the exact byte stream that the database
//   server sends for this database (hash confirm and data confirms), the clock stops when the
//   host has read it all;
// - extraction: ZlTgtDb bound to the same interface, polled every millisecond, from the first
//   request to the file written;
// - tool: the real program with -e, from start to exit (its wait loop polls every 200 ms, so this
//   figure includes start-up, port opening and up to two polling steps).
// Each figure is the median of several runs.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "zavra_log_tgt_db.h"
#include "zsim-modem.h"
#include "zv-itf-serial.h"
#include "zv-time.h"

namespace {

using Clock = std::chrono::steady_clock;
const unsigned kDbSize = 2 * 1024 * 1024;
const unsigned kBase = 0x35;
const int kRuns = 5;

double Seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

class CountingHandler : public ZvItfAsyncRxHandlers {
public:
    void OnRxData(unsigned int count, unsigned char*) override { bytes += count; }
    void OnRxFail() override {}
    std::atomic<uint64_t> bytes{0};
};

class BenchTgtDb : public ZlTgtDb, public ZvItfAsyncRxHandlers {
public:
    explicit BenchTgtDb(ZvItfAsyncSerial& port) : m_port(port) {}
    void Send(unsigned int size, unsigned char* data) override { m_port.Send(size, data); }
    void OnRxData(unsigned int count, unsigned char* data) override { OnNewData(data, count); }
    void OnRxFail() override {}

private:
    ZvItfAsyncSerial& m_port;
};

// The byte stream the database server answers with: the hash confirm, then data confirms of
// chunkSize data bytes each, the last one flagged.
zsim::Bytes ServerStream(const zsim::Bytes& db, unsigned chunkSize) {
    zsim::MessageIds ids = zsim::MessageIds::FromBase(kBase);
    zsim::Bytes body;
    zsim::PutU32(body, 0);
    zsim::PutU32(body, 0x5EED);
    zsim::PutU32(body, uint32_t(db.size()));
    zsim::Bytes out = zsim::EncodeRecord(zsim::Layout::A, 1, ids.hashCnf, 0, body);
    for (size_t at = 0; at < db.size(); at += chunkSize) {
        size_t n = std::min<size_t>(chunkSize, db.size() - at);
        body.clear();
        zsim::PutU32(body, 0);
        zsim::PutU32(body, at + n < db.size() ? 1 : 0);
        body.insert(body.end(), db.begin() + at, db.begin() + at + n);
        zsim::Bytes record = zsim::EncodeRecord(zsim::Layout::A, 1, ids.dataCnf, 0, body);
        out.insert(out.end(), record.begin(), record.end());
    }
    return out;
}

struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/tgtdb_bench_XXXXXX";
        dir = mkdtemp(pattern) ? pattern : "";
    }
    ~Scratch() {
        if (!dir.empty()) {
            std::string cmd = "rm -rf '" + dir + "'";
            if (system(cmd.c_str()) != 0) {
                fprintf(stderr, "could not remove %s\n", dir.c_str());
            }
        }
    }
    std::string dir;
};

bool StartModem(zsim::Modem& modem, const Scratch& scratch, unsigned chunkSize) {
    zsim::ModemOptions options;
    options.dir = scratch.dir;
    options.gen.enabled = false;
    options.keepRawInMemory = false;
    options.db.zxFile = scratch.dir + "/modem.zx";
    options.db.chunkSize = chunkSize;
    if (!modem.Start(options)) {
        fprintf(stderr, "modem: %s\n", modem.Error().c_str());
        return false;
    }
    return true;
}

double RawRun(const Scratch& scratch, const zsim::Bytes& stream, unsigned chunkSize) {
    zsim::Modem modem;
    if (!StartModem(modem, scratch, chunkSize)) {
        return -1;
    }
    CountingHandler handler;
    ZvItfAsyncSerial port;
    port.SetPortName(modem.PortPath().c_str());
    port.SetRxHandler(&handler);
    if (!port.OnOpen()) {
        return -1;
    }
    Clock::time_point start = Clock::now();
    modem.InjectBytes(stream);
    while (handler.bytes < stream.size()) {
        if (Seconds(start, Clock::now()) > 30) {
            return -1;
        }
        usleep(200);
    }
    double seconds = Seconds(start, Clock::now());
    port.OnClose();
    return seconds;
}

double ExtractionRun(const Scratch& scratch, const zsim::Bytes& db, unsigned chunkSize) {
    zsim::Modem modem;
    if (!StartModem(modem, scratch, chunkSize)) {
        return -1;
    }
    ZvItfAsyncSerial port;
    BenchTgtDb extractor(port);
    std::string output = scratch.dir + "/out.zx";
    port.SetPortName(modem.PortPath().c_str());
    port.SetRxHandler(&extractor);
    if (!extractor.Configure(output.c_str(), kBase) || !port.OnOpen()) {
        return -1;
    }
    Clock::time_point start = Clock::now();
    int progress = 0;
    while ((progress = extractor.CheckProgress()) == 0) {
        usleep(1000);
    }
    double seconds = Seconds(start, Clock::now());
    port.OnClose();
    std::ifstream in(output, std::ios::binary);
    std::string got((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (progress != 2 || got != std::string(db.begin(), db.end())) {
        fprintf(stderr, "extraction failed: %s\n", extractor.GetError().c_str());
        return -1;
    }
    return seconds;
}

double ToolRun(const Scratch& scratch, unsigned chunkSize) {
    zsim::Modem modem;
    if (!StartModem(modem, scratch, chunkSize)) {
        return -1;
    }
    std::string output = scratch.dir + "/tool.zx";
    std::string cmd = std::string("'") + ZAVRA_LOG_SERIAL_PATH + "' -v1 -d'" + modem.PortPath() +
                      "' -e'" + output + "'";
    Clock::time_point start = Clock::now();
    int status = system(cmd.c_str());
    double seconds = Seconds(start, Clock::now());
    if (status != 0) {
        fprintf(stderr, "tool run failed (%d)\n", status);
        return -1;
    }
    return seconds;
}

} // namespace

int main() {
    Scratch scratch;
    if (scratch.dir.empty()) {
        return 1;
    }
    zsim::Bytes db(kDbSize);
    uint32_t x = 12345;
    for (auto& b : db) {
        x = x * 1103515245u + 12345;
        b = uint8_t(x >> 16);
    }
    std::ofstream(scratch.dir + "/modem.zx", std::ios::binary)
        .write(reinterpret_cast<const char*>(db.data()), std::streamsize(db.size()));

    printf("Database extraction of %u bytes over a pty (median of %d runs)\n", kDbSize, kRuns);
    for (unsigned chunkSize : {2048u, 20472u}) {
        zsim::Bytes stream = ServerStream(db, chunkSize);
        std::vector<double> raw, extraction, tool;
        for (int i = 0; i < kRuns; ++i) {
            raw.push_back(RawRun(scratch, stream, chunkSize));
            extraction.push_back(ExtractionRun(scratch, db, chunkSize));
            tool.push_back(ToolRun(scratch, chunkSize));
        }
        for (auto* series : {&raw, &extraction, &tool}) {
            if (std::find(series->begin(), series->end(), -1.0) != series->end()) {
                fprintf(stderr, "a run failed\n");
                return 1;
            }
        }
        double r = Median(raw), e = Median(extraction), t = Median(tool);
        printf("data records of %5u bytes: stream %zu bytes\n", chunkSize, stream.size());
        printf("  raw transfer     %8.1f ms  %7.1f MB/s\n", r * 1e3, stream.size() / r / 1e6);
        printf("  extraction       %8.1f ms  %7.1f MB/s  ratio %.2f\n", e * 1e3, kDbSize / e / 1e6,
               e / r);
        printf("  tool end to end  %8.1f ms  %7.1f MB/s  ratio %.2f\n", t * 1e3, kDbSize / t / 1e6,
               t / r);
    }
    return 0;
}
