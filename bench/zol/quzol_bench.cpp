// Live reader throughput over a 64 MiB stream of mixed records, fed in port-sized chunks, clean
// and with 1% garbage between records. Each run also times a plain memcpy of the same bytes and
// reports the reader's throughput as a fraction of it ("vs_memcpy"). Both are timed in thread CPU
// time, so that a machine busy with other work skews neither side.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstring>
#include <random>
#include <vector>

#include "quzol-read-live.h"

namespace {

double ThreadSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

constexpr size_t kStreamBytes = 64u << 20;
constexpr unsigned kChunk = 20000; // what the serial reader hands over at most

struct Stream {
    std::vector<unsigned char> bytes;
    unsigned long long records = 0;
    unsigned long long garbage = 0;
};

void PutLe(std::vector<unsigned char>& out, unsigned value, unsigned n) {
    for (unsigned i = 0; i < n; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// Legacy and KOR 1 per-processor records; bodies mostly small, some large, like a modem log.
Stream MakeStream(double garbageShare) {
    std::mt19937 rng(42);
    Stream s;
    s.bytes.reserve(kStreamBytes + 4096);
    const unsigned syncs[] = {0x30CF29, 0x78DAE4};
    while (s.bytes.size() < kStreamBytes) {
        if (garbageShare > 0 && std::uniform_real_distribution<>(0, 1)(rng) < garbageShare * 8) {
            // Runs of 1..64 bytes, low values only so they never fake a sync word.
            const unsigned run = 1 + rng() % 64;
            for (unsigned i = 0; i < run; ++i)
                s.bytes.push_back(static_cast<unsigned char>(rng() % 0x10));
            s.garbage += run;
        }
        const unsigned pick = rng() % 10;
        const unsigned body = pick < 6   ? 4 + rng() % 60
                              : pick < 9 ? 64 + rng() % 448
                                         : 512 + rng() % 1536;
        const unsigned pad = (4 - body % 4) % 4;
        const unsigned words = (12 + body + pad) / 4;
        if (rng() % 2 == 0) {
            PutLe(s.bytes, 0x807F807F, 4);
            PutLe(s.bytes, rng(), 4);
            PutLe(s.bytes, words, 2);
            PutLe(s.bytes, (rng() % 0x1FFF) | (pad << 13) | ((rng() & 1) << 15), 2);
        } else {
            PutLe(s.bytes, syncs[rng() % 2], 3);
            s.bytes.push_back(static_cast<unsigned char>(rng()));
            PutLe(s.bytes, rng(), 4);
            PutLe(s.bytes, words, 2);
            PutLe(s.bytes, (rng() % 0x3FFF) | (pad << 14), 2);
        }
        for (unsigned i = 0; i < body + pad; ++i)
            s.bytes.push_back(static_cast<unsigned char>(rng()));
        ++s.records;
    }
    return s;
}

const Stream& Clean() {
    static const Stream s = MakeStream(0);
    return s;
}
const Stream& Dirty() {
    static const Stream s = MakeStream(0.01);
    return s;
}

void ReadLive(benchmark::State& state, const Stream& stream) {
    const size_t n = stream.bytes.size();
    std::vector<unsigned char> copy(n);
    memcpy(copy.data(), stream.bytes.data(), n); // fault the pages in before timing
    QoZolSyncCheck sync;
    sync.AddLiveDefaults();
    QoZolReadLiveMem reader(&sync);
    QoZolRecordTag* record = QoZolRecordTag::Create(kQoZolMaxBody, kQoZolSyncA);
    QoZolLiveRecord live(record);
    double memcpySeconds = 0;
    double readerSeconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const double c0 = ThreadSeconds();
        memcpy(copy.data(), stream.bytes.data(), n);
        benchmark::ClobberMemory();
        memcpySeconds += ThreadSeconds() - c0;
        reader.ResetStats();
        live.Reset();
        state.ResumeTiming();

        const double r0 = ThreadSeconds();
        unsigned long long records = 0;
        for (size_t at = 0; at < n; at += kChunk) {
            reader.SetData(stream.bytes.data() + at,
                           static_cast<unsigned>(std::min<size_t>(kChunk, n - at)));
            while (reader.ReadLiveRecord(live))
                ++records;
        }
        benchmark::DoNotOptimize(records);
        readerSeconds += ThreadSeconds() - r0;
        if (records != stream.records || reader.GetSkipped() != stream.garbage) {
            state.SkipWithError("reader lost records or miscounted garbage");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * n));
    state.counters["records"] = static_cast<double>(stream.records);
    state.counters["garbage_pct"] = 100.0 * static_cast<double>(stream.garbage) / n;
    state.counters["memcpy_GBps"] =
        memcpySeconds > 0 ? state.iterations() * n / memcpySeconds / 1e9 : 0;
    state.counters["reader_GBps"] =
        readerSeconds > 0 ? state.iterations() * n / readerSeconds / 1e9 : 0;
    state.counters["vs_memcpy"] = readerSeconds > 0 ? memcpySeconds / readerSeconds : 0;
    QoZolRecordTag::Destroy(&record);
}

void BM_LiveReaderClean(benchmark::State& state) {
    ReadLive(state, Clean());
}
void BM_LiveReaderGarbage1Percent(benchmark::State& state) {
    ReadLive(state, Dirty());
}

} // namespace

BENCHMARK(BM_LiveReaderClean)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_LiveReaderGarbage1Percent)->Unit(benchmark::kMillisecond)->MinTime(2.0);
