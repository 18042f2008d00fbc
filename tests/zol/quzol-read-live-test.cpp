// The live reader over streams built by the test's own encoder, fed in every possible split.
#include <gtest/gtest.h>

#include <tuple>

#include "quzol-read-live.h"
#include "zol-test-stream.h"

namespace {

// What the reader made of a record: format, KOR, id, time, body and wire bytes.
using Got = std::tuple<unsigned, unsigned, unsigned, unsigned long long, Bytes, Bytes>;
using Gap = std::pair<unsigned long long, unsigned long long>; // offset, skipped

// A reader with its record, fed chunk by chunk; collects what comes out.
class LiveHarness {
public:
    explicit LiveHarness(unsigned capacity = 20480)
        : record(QoZolRecordTag::Create(capacity, 0x807F807F)), live(record.get()) {
        sync.AddAllLayouts();
    }

    void Feed(const unsigned char* data, unsigned size) {
        reader.SetData(data, size);
        while (reader.ReadLiveRecord(live)) {
            const QoZolRecordTag* r = live.GetRecord();
            records.emplace_back(r->GetFormat(), r->GetKor(), r->GetId(), r->GetTime(),
                                 Bytes(r->GetBody(), r->GetBody() + r->GetBodySize()),
                                 Bytes(r->GetData(), r->GetData() + r->GetTotalSize()));
            unsigned long long offset = 0, skipped = 0;
            if (reader.CheckForResync(offset, skipped))
                gaps.emplace_back(offset, skipped);
        }
        EXPECT_EQ(reader.GetRemaining(), 0u);
    }
    void Feed(const Bytes& stream) { Feed(stream.data(), static_cast<unsigned>(stream.size())); }

    QoZolSyncCheck sync;
    QoZolReadLiveMem reader{&sync};
    RecordPtr record;
    QoZolLiveRecord live;
    std::vector<Got> records;
    std::vector<Gap> gaps;
};

Got Expect(const TestRecord& r) {
    unsigned kor = r.kor;
    if (r.layout == 2)
        kor = (r.sync24 == 0x30CF29 || r.sync24 == 0x78DAE4) ? 1 : r.sync24 == 0xC426B9 ? 2 : 0;
    return Got{r.layout, kor, r.id, r.layout == 3 ? r.time & 0xFFF : r.time, r.body, Encode(r)};
}

// One record of every layout, sync value and padding count.
std::vector<TestRecord> MixedRecords() {
    std::mt19937 rng(7);
    std::vector<TestRecord> out;
    out.push_back({1, 0, 1, 0x0035, 0x01020304, RandomBody(12, rng)});
    out.push_back({1, 0, 0, 0x1FFF, 0, {}});
    out.push_back({1, 0, 1, 0x0100, 0xFFFFFFFF, RandomBody(13, rng)});
    const unsigned syncs[] = {0xFB3E98, 0xF2E05F, 0x30CF29, 0x78DAE4, 0xC426B9};
    unsigned size = 1;
    for (unsigned s : syncs)
        out.push_back({2, s, 0, 0x3FFF - size, 0xAB00000000ull + size, RandomBody(size++, rng)});
    out.push_back({3, 0, 3, 2, 0xFFF, RandomBody(8, rng)});
    out.push_back({3, 0, 1, 1, 0x123, {}});
    return out;
}

// Random chunking of random streams is the live fuzz target's part; here every cut of a known one.
TEST(QoZolReadLive, EveryLayoutAmongGarbageSplitAtEveryPosition) {
    std::mt19937 rng(12345);
    std::vector<Got> expected;
    std::vector<Gap> gaps;
    Bytes stream;
    unsigned long long garbage = 0;
    for (const TestRecord& r : MixedRecords()) {
        const Bytes wire = Encode(r);
        if (expected.size() % 3 == 0) {
            const unsigned length = 1 + rng() % 20;
            gaps.emplace_back(stream.size(), length);
            AppendGarbage(stream, length, wire, rng);
            garbage += length;
        }
        stream.insert(stream.end(), wire.begin(), wire.end());
        expected.push_back(Expect(r));
    }
    // Garbage at the end is one more loss of step; its last three bytes are held back as they
    // might begin a sync word.
    AppendGarbage(stream, 30, {}, rng);
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        LiveHarness h;
        h.Feed(stream.data(), static_cast<unsigned>(cut));
        h.Feed(stream.data() + cut, static_cast<unsigned>(stream.size() - cut));
        ASSERT_EQ(h.records, expected) << "split at " << cut;
        ASSERT_EQ(h.gaps, gaps) << "split at " << cut;
        ASSERT_EQ(h.reader.GetRecordsRead(), expected.size());
        ASSERT_EQ(h.reader.GetSkipped(), garbage + 27);
        ASSERT_EQ(h.reader.GetSyncErrors(), gaps.size() + 1);
        ASSERT_EQ(h.reader.GetOffset(), stream.size() - 3);
    }
}

TEST(QoZolReadLive, BodyLimitAcceptsTwentyKilobytesAndRejectsOneMore) {
    std::mt19937 rng(9);
    const TestRecord largest{1, 0, 0, 5, 1, RandomBody(20480, rng)};
    // A header claiming a 20481-byte body (5124 words, padding 3) whose time field holds the start
    // of the next record: the rejected header costs one byte, then the inner record is found.
    const TestRecord inner{1, 0, 0, 6, 0x60001404, {}};
    Bytes stream = Encode(largest), innerWire = Encode(inner);
    stream.insert(stream.end(), {0x7F, 0x80, 0x7F, 0x80});
    stream.insert(stream.end(), innerWire.begin(), innerWire.end());
    LiveHarness h(20480 + 64);
    h.Feed(stream);
    EXPECT_EQ(h.records, (std::vector<Got>{Expect(largest), Expect(inner)}));
    EXPECT_EQ(h.reader.GetSkipped(), 4u);
    // The window two bytes on (7F 80 7F 80 7F 80 ...) is another legacy sync with a huge length:
    // two rejected headers plus the one loss of step between them.
    EXPECT_EQ(h.reader.GetSyncErrors(), 3u);
    EXPECT_EQ(h.gaps, (std::vector<Gap>{{20492, 4}}));
}

TEST(QoZolReadLive, LiveDefaultsSkipKor0PerKorRecordsAndMatchSwapsTheHitFirst) {
    LiveHarness h;
    h.sync.Clear();
    h.sync.AddLiveDefaults();
    h.Feed(Encode({2, 0xFB3E98, 0, 1, 0, {1, 2, 3, 4}}));
    h.Feed(Encode({2, 0x30CF29, 0, 2, 0, {5, 6, 7, 8}}));
    ASSERT_EQ(h.records.size(), 1u);
    EXPECT_EQ(std::get<2>(h.records[0]), 2u);
    EXPECT_EQ(h.reader.GetSkipped(), 16u);

    QoZolSyncCheck check; // a hit is swapped to the front, where the next search starts
    check.AddLiveDefaults();
    EXPECT_TRUE(check.Match(0x1230CF29)); // third pair, any top byte
    EXPECT_FALSE(check.Match(0x807F807E));
    EXPECT_TRUE(check.Match(0x807F807F));
    EXPECT_EQ(check.GetValue(0), 0x807F807Fu);
    EXPECT_EQ(check.GetValue(2), 0x30CF29u);
}

} // namespace
