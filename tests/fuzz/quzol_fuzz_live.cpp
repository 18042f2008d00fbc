// Live reader under random input cut into random chunks. Checks that every record is sound, that
// the bytes are all accounted for (records + skipped + held back), and that the result does not
// depend on where the chunks were cut.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <vector>

#include "quzol-read-live.h"

namespace {

struct Outcome {
    std::vector<unsigned char> records; // wire bytes of every record, back to back
    unsigned long long count = 0;
    std::vector<unsigned long long> stats; // each gap's offset and size, then skipped, sync errors
};

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : abort())

void Consume(QoZolReadLiveMem& reader, QoZolLiveRecord& live, Outcome& out) {
    while (reader.ReadLiveRecord(live)) {
        const QoZolRecordTag* r = live.GetRecord();
        FUZZ_CHECK(r->GetBodySize() <= kQoZolMaxBody);
        FUZZ_CHECK(r->GetBodySize() + r->GetPadding() <= r->GetCapacity());
        FUZZ_CHECK(r->GetTotalSize() == 12 + r->GetBodySize() + r->GetPadding());
        FUZZ_CHECK(r->GetTotalSize() % 4 == 0);
        out.records.insert(out.records.end(), r->GetData(), r->GetData() + r->GetTotalSize());
        ++out.count;
        unsigned long long offset = 0, skipped = 0;
        if (reader.CheckForResync(offset, skipped)) {
            FUZZ_CHECK(skipped != 0 && offset + skipped <= reader.GetOffset());
            out.stats.insert(out.stats.end(), {offset, skipped});
        }
    }
}

// Bytes of the current incomplete record already counted in the stream offset.
unsigned long long PartialRecordBytes(const QoZolLiveRecord& live) {
    if (live.m_phase < QoZolLiveRecord::PhaseBody)
        return 0;
    const QoZolRecordTag* r = live.GetRecord();
    return 12 + live.m_bodyRead + (r->GetPadding() - live.m_paddingRemaining);
}

Outcome Run(const unsigned char* data, size_t size, const std::vector<size_t>& chunks,
            unsigned syncChoice, unsigned capacity) {
    QoZolSyncCheck sync;
    syncChoice == 0   ? sync.AddLiveDefaults()
    : syncChoice == 1 ? sync.AddScriptDefaults()
                      : sync.AddAllLayouts();
    QoZolReadLiveMem reader(&sync);
    QoZolRecordTag* record = QoZolRecordTag::Create(capacity, kQoZolSyncA);
    QoZolLiveRecord live(record);
    Outcome out;
    size_t at = 0;
    for (size_t n : chunks) {
        reader.SetData(data + at, static_cast<unsigned>(n));
        Consume(reader, live, out);
        FUZZ_CHECK(reader.GetRemaining() == 0);
        at += n;
        // Every byte fed so far is a record, skipped, or held for the record being assembled.
        FUZZ_CHECK(reader.GetOffset() + live.m_header.GetCount() == at);
        FUZZ_CHECK(reader.GetOffset() ==
                   out.records.size() + reader.GetSkipped() + PartialRecordBytes(live));
    }
    FUZZ_CHECK(at == size);
    FUZZ_CHECK(reader.GetRecordsRead() == out.count);
    out.stats.insert(out.stats.end(), {reader.GetSkipped(), reader.GetSyncErrors()});
    QoZolRecordTag::Destroy(&record);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider provider(data, size);
    const unsigned syncChoice = provider.ConsumeIntegralInRange<unsigned>(0, 2);
    const unsigned capacity =
        provider.ConsumeBool() ? kQoZolMaxBody : provider.ConsumeIntegralInRange<unsigned>(0, 256);
    const unsigned seed = provider.ConsumeIntegral<unsigned>();
    const std::vector<unsigned char> stream = provider.ConsumeRemainingBytes<unsigned char>();

    // Random chunk sizes from the seed, biased towards small chunks.
    std::vector<size_t> chunks;
    unsigned state = seed | 1;
    for (size_t left = stream.size(); left != 0;) {
        state = state * 1103515245u + 12345u;
        size_t n = (state >> 16) % ((state & 0x100) != 0 ? 17 : 400) + 1;
        if (n > left)
            n = left;
        chunks.push_back(n);
        left -= n;
    }
    const Outcome split = Run(stream.data(), stream.size(), chunks, syncChoice, capacity);
    const Outcome once =
        Run(stream.data(), stream.size(),
            stream.empty() ? std::vector<size_t>{} : std::vector<size_t>{stream.size()}, syncChoice,
            capacity);
    FUZZ_CHECK(split.records == once.records && split.stats == once.stats);
    return 0;
}
