// The file reader on script-style files: records, gaps, a rewind.
#include <gtest/gtest.h>

#include <string>

#include "quzol-read-file.h"
#include "zavra_test_files.h"
#include "zol-test-stream.h"

namespace {

using Gaps = std::vector<std::pair<unsigned long long, unsigned long long>>;

void Append(Bytes& stream, const Bytes& more) {
    stream.insert(stream.end(), more.begin(), more.end());
}

// A scratch directory and a script-default file reader over one file written there.
struct FileRun {
    zavra_test::TempDir dir;
    QoZolSyncCheck sync;
    QoZolReadFile reader{&sync};
    RecordPtr record{QoZolRecordTag::Create(20480, 0x807F807F)};

    FileRun() { sync.AddScriptDefaults(); }
    std::string Write(const char* name, const Bytes& content) {
        EXPECT_TRUE(
            zavra_test::WriteFile(dir.File(name), std::string(content.begin(), content.end())));
        return dir.File(name);
    }
    // The wire bytes of every record read to the end, and the gaps reported after them.
    std::vector<Bytes> ReadAll(Gaps* gaps = nullptr) {
        std::vector<Bytes> got;
        while (reader.ReadRecord(record.get())) {
            got.emplace_back(record->GetData(), record->GetData() + record->GetTotalSize());
            unsigned long long offset = 0, skipped = 0;
            if (reader.CheckForResync(offset, skipped) && gaps != nullptr)
                gaps->emplace_back(offset, skipped);
        }
        return got;
    }
};

TEST(QoZolReadFile, MissingOrEmptyFileYieldsNothingAndAScriptItsRecordsAndGaps) {
    // Legacy records with garbage before, between and after them, and one per-KOR record that a
    // script reader (legacy sync only) must treat as garbage.
    std::mt19937 rng(2024);
    const Bytes a = Encode({1, 0, 0, 0x35, 0, {0, 0, 0, 0, 50, 0, 0, 0, 60, 0, 0, 0}});
    const Bytes b = Encode({1, 0, 1, 0x40, 7, RandomBody(13, rng)});
    const Bytes c = Encode({1, 0, 1, 0x36, 0, {}});
    Bytes bytes;
    AppendGarbage(bytes, 10, a, rng);
    Append(bytes, a);
    Append(bytes, b);
    Append(bytes, Encode({2, 0xFB3E98, 0, 9, 0, RandomBody(8, rng)})); // 20 bytes of garbage here
    AppendGarbage(bytes, 7, c, rng);
    Append(bytes, c);
    const Bytes cut = Encode({1, 0, 0, 2, 0, RandomBody(40, rng)});
    AppendGarbage(bytes, 5, cut, rng);                        // skipped, no whole record follows
    bytes.insert(bytes.end(), cut.begin(), cut.begin() + 30); // neither read nor skipped

    FileRun run;
    // A missing file, then an empty one, give nothing.
    EXPECT_FALSE(run.reader.OpenRead(run.dir.File("missing.zos").c_str()));
    EXPECT_FALSE(run.reader.ReadRecord(run.record.get()));
    EXPECT_FALSE(run.reader.Rewind());
    ASSERT_TRUE(run.reader.OpenRead(run.Write("empty.zos", {}).c_str()));
    EXPECT_FALSE(run.reader.ReadRecord(run.record.get()));
    ASSERT_TRUE(run.reader.OpenRead(run.Write("script.zos", bytes).c_str()));
    Gaps gaps;
    EXPECT_EQ(run.ReadAll(&gaps), (std::vector<Bytes>{a, b, c}));
    EXPECT_TRUE(run.reader.IsEof());
    EXPECT_EQ(run.reader.GetSkipped(), 10u + 20 + 7 + 5);
    EXPECT_EQ(run.reader.GetOffset(), bytes.size() - 30);
    EXPECT_EQ(run.reader.GetSyncErrors(), 3u);
    EXPECT_EQ(gaps, (Gaps{{0, 10}, {10 + 24 + 28, 27}}));

    // Sent again on the next target initialisation: the same records from the start.
    ASSERT_TRUE(run.reader.Rewind());
    EXPECT_EQ(run.ReadAll(), (std::vector<Bytes>{a, b, c}));
}

} // namespace
