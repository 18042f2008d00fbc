// The file reader on script-style files, the resync report records, and the file summary.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "quzol-info.h"
#include "quzol-read-file.h"
#include "quzol-write.h"
#include "zol-test-stream.h"

namespace {

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/quzol-file-XXXXXX";
        path = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempDir() {
        for (const auto& file : files)
            remove(file.c_str());
        rmdir(path.c_str());
    }
    std::string Write(const char* name, const Bytes& content) {
        const std::string file = path + "/" + name;
        FILE* f = fopen(file.c_str(), "wb");
        if (f != nullptr) {
            if (!content.empty())
                fwrite(content.data(), 1, content.size(), f);
            fclose(f);
        }
        files.push_back(file);
        return file;
    }
    Bytes Read(const std::string& file) {
        Bytes content;
        FILE* f = fopen(file.c_str(), "rb");
        if (f == nullptr)
            return content;
        for (int c; (c = fgetc(f)) != EOF;)
            content.push_back(static_cast<unsigned char>(c));
        fclose(f);
        return content;
    }
    std::string path;
    std::vector<std::string> files;
};

void Append(Bytes& stream, const Bytes& more) {
    stream.insert(stream.end(), more.begin(), more.end());
}

// A script: legacy records for the target with garbage before, between and after them, and one
// per-KOR record that a script reader (legacy sync only) must treat as garbage.
struct Script {
    Bytes bytes;
    std::vector<Bytes> records; // wire bytes of the records the reader must return
    unsigned long long skipped = 0;
};

Script MakeScript() {
    std::mt19937 rng(2024);
    Script s;
    const TestRecord a{1, 0, 0, 0x35, 0, {0, 0, 0, 0, 50, 0, 0, 0, 60, 0, 0, 0}};
    const TestRecord b{1, 0, 1, 0x40, 7, RandomBody(13, rng)};
    const TestRecord c{1, 0, 1, 0x36, 0, {}};
    const TestRecord kor0{2, 0xFB3E98, 0, 9, 0, RandomBody(8, rng)};
    AppendGarbage(s.bytes, 10, Encode(a), rng); // gap at 0
    Append(s.bytes, Encode(a));
    Append(s.bytes, Encode(b));
    Append(s.bytes, Encode(kor0)); // 20 bytes of garbage to this reader, then 7 more
    Bytes tail;
    AppendGarbage(tail, 7, Encode(c), rng);
    Append(s.bytes, tail);
    Append(s.bytes, Encode(c));
    AppendGarbage(s.bytes, 5, {}, rng); // trailing garbage: skipped, no record follows
    s.records = {Encode(a), Encode(b), Encode(c)};
    s.skipped = 10 + 20 + 7 + 5;
    return s;
}

TEST(QoZolReadFile, ScriptWithGarbageYieldsItsLegacyRecordsAndReportsGaps) {
    TempDir dir;
    const Script script = MakeScript();
    const std::string path = dir.Write("script.zos", script.bytes);
    QoZolSyncCheck sync;
    sync.AddScriptDefaults();
    QoZolReadFile reader(&sync);
    ASSERT_TRUE(reader.OpenRead(path.c_str()));
    EXPECT_EQ(reader.GetFileSize(), static_cast<long long>(script.bytes.size()));
    QoZolRecordTag* record = QoZolRecordTag::Create(20480, 0x807F807F);
    std::vector<Bytes> got;
    std::vector<std::pair<unsigned long long, unsigned long long>> gaps;
    while (reader.ReadRecord(record)) {
        got.emplace_back(record->GetData(), record->GetData() + record->GetTotalSize());
        unsigned long long offset = 0, skipped = 0;
        if (reader.CheckForResync(offset, skipped))
            gaps.emplace_back(offset, skipped);
    }
    EXPECT_EQ(got, script.records);
    EXPECT_TRUE(reader.IsEof());
    EXPECT_EQ(reader.GetSkipped(), script.skipped);
    EXPECT_EQ(reader.GetOffset(), script.bytes.size());
    EXPECT_EQ(reader.GetSyncErrors(), 3u);
    const unsigned long long afterB = 10 + 24 + 28;
    EXPECT_EQ(gaps, (std::vector<std::pair<unsigned long long, unsigned long long>>{{0, 10},
                                                                                    {afterB, 27}}));
    EXPECT_FALSE(reader.ReadRecord(record));

    // Sent again on the next target initialisation: the same records from the start.
    ASSERT_TRUE(reader.Rewind());
    std::vector<Bytes> again;
    while (reader.ReadRecord(record))
        again.emplace_back(record->GetData(), record->GetData() + record->GetTotalSize());
    EXPECT_EQ(again, script.records);
    QoZolRecordTag::Destroy(&record);
}

TEST(QoZolReadFile, TruncatedRecordEndsTheFileWithoutCountingIt) {
    TempDir dir;
    std::mt19937 rng(1);
    Bytes bytes = Encode({1, 0, 0, 1, 0, RandomBody(8, rng)});
    const Bytes cut = Encode({1, 0, 0, 2, 0, RandomBody(40, rng)});
    bytes.insert(bytes.end(), cut.begin(), cut.begin() + 30);
    const std::string path = dir.Write("cut.zol", bytes);
    QoZolSyncCheck sync;
    sync.AddScriptDefaults();
    QoZolReadFile reader(&sync);
    ASSERT_TRUE(reader.OpenRead(path.c_str()));
    QoZolRecordTag* record = QoZolRecordTag::Create(20480, 0x807F807F);
    EXPECT_TRUE(reader.ReadRecord(record));
    EXPECT_FALSE(reader.ReadRecord(record));
    EXPECT_TRUE(reader.IsEof());
    EXPECT_EQ(reader.GetRecordsRead(), 1u);
    EXPECT_EQ(reader.GetOffset(), 20u);
    EXPECT_EQ(reader.GetSkipped(), 0u);
    QoZolRecordTag::Destroy(&record);
}

TEST(QoZolReadFile, MissingFileEmptyFileAndNoRecordFailCleanly) {
    TempDir dir;
    QoZolSyncCheck sync;
    sync.AddScriptDefaults();
    QoZolReadFile reader(&sync);
    QoZolRecordTag* record = QoZolRecordTag::Create(64, 0x807F807F);
    EXPECT_FALSE(reader.OpenRead((dir.path + "/missing.zos").c_str()));
    EXPECT_FALSE(reader.ReadRecord(record));
    EXPECT_FALSE(reader.Rewind());
    const std::string empty = dir.Write("empty.zos", {});
    ASSERT_TRUE(reader.OpenRead(empty.c_str()));
    EXPECT_FALSE(reader.ReadRecord(nullptr));
    EXPECT_FALSE(reader.ReadRecord(record));
    EXPECT_EQ(reader.GetSyncErrors(), 0u);
    QoZolRecordTag::Destroy(&record);
}

TEST(QoZolResyncReport, TextRecordCarriesTheGapWithTemplateFields) {
    QoZolRecordTag* templ = QoZolRecordTag::Create(0, 0x807F807F);
    templ->SetKor(1);
    templ->SetTime(0x1234);
    EXPECT_EQ(GenerateSyncErrorMessage("KOR1", 0x99, 16, 0, templ), nullptr);
    QoZolRecordTag* report = GenerateSyncErrorMessage("KOR1", 0x99, 16, 5, templ);
    ASSERT_NE(report, nullptr);
    const std::string text =
        "KOR1 stream sync error detected at offset '0x00000010', skipping '5' bytes";
    ASSERT_EQ(report->GetBodySize(), text.size() + 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(report->GetBody())), text);
    EXPECT_EQ(report->GetId(), 0x99u);
    EXPECT_EQ(report->GetKor(), 1u);
    EXPECT_EQ(report->GetTime(), 0x1234u);
    EXPECT_EQ(report->GetFormat(), 1u);
    QoZolRecordTag::Destroy(&report);
    QoZolRecordTag::Destroy(&templ);
}

TEST(QoZolResyncReport, CheckAndHandleReportsOnceAndHonoursTheNoReportId) {
    TempDir dir;
    std::mt19937 rng(4);
    Bytes bytes;
    const Bytes wire = Encode({1, 0, 1, 3, 0, {1, 2, 3, 4}});
    AppendGarbage(bytes, 6, wire, rng);
    Append(bytes, wire);
    Append(bytes, wire);
    const std::string in = dir.Write("in.zol", bytes);
    QoZolSyncCheck sync;
    sync.AddScriptDefaults();
    QoZolReadFile reader(&sync);
    ASSERT_TRUE(reader.OpenRead(in.c_str()));
    QoZolRecordTag* record = QoZolRecordTag::Create(64, 0x807F807F);
    ASSERT_TRUE(reader.ReadRecord(record));
    // 0xFFFFFFFF asks for no report and leaves the detection pending.
    EXPECT_EQ(CheckAndHandleResyncErrors(reader, 0xFFFFFFFF, record), nullptr);
    const std::string out = dir.path + "/out.zol";
    dir.files.push_back(out);
    QoZolWrite writer;
    ASSERT_TRUE(writer.OpenWrite(out.c_str()));
    EXPECT_TRUE(CheckAndHandleResyncErrors(writer, nullptr, reader, 0x50, record));
    ASSERT_TRUE(reader.ReadRecord(record));
    EXPECT_FALSE(CheckAndHandleResyncErrors(writer, "port", reader, 0x50, record));
    writer.Close();
    const Bytes written = dir.Read(out);
    const std::string text =
        "KOR1 stream sync error detected at offset '0x00000000', skipping '6' bytes";
    ASSERT_EQ(written.size(), 12 + ((text.size() + 1 + 3) & ~size_t(3)));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(written.data() + 12)), text);
    EXPECT_EQ(written[10], 0x50);
    QoZolRecordTag::Destroy(&record);
}

TEST(QoZolInfo, SummarisesLayoutsKorsIdsTimesAndGaps) {
    TempDir dir;
    std::mt19937 rng(8);
    Bytes bytes;
    Append(bytes, Encode({1, 0, 0, 0x35, 100, RandomBody(4, rng)}));
    Append(bytes, Encode({2, 0x30CF29, 0, 0x200, 0x0100000005ull, RandomBody(9, rng)}));
    const Bytes c = Encode({3, 0, 2, 1, 0x10, {}});
    AppendGarbage(bytes, 11, c, rng);
    Append(bytes, c);
    Append(bytes, Encode({1, 0, 1, 0x35, 50, {}}));
    const Bytes cut = Encode({1, 0, 0, 1, 0, RandomBody(20, rng)});
    bytes.insert(bytes.end(), cut.begin(), cut.begin() + 9);
    const std::string path = dir.Write("capture.zom", bytes);

    QoZolInfoResult info;
    ASSERT_TRUE(QoZolInfo::GetInfo(path.c_str(), info));
    EXPECT_EQ(info.fileSize, static_cast<long long>(bytes.size()));
    EXPECT_EQ(info.records, 4u);
    EXPECT_EQ(info.recordBytes, 16u + 24 + 12 + 12);
    EXPECT_EQ(info.skippedBytes, 11u);
    EXPECT_EQ(info.trailingBytes, 9u);
    EXPECT_EQ(info.recordsPerLayout[1], 2u);
    EXPECT_EQ(info.recordsPerLayout[2], 1u);
    EXPECT_EQ(info.recordsPerLayout[3], 1u);
    EXPECT_EQ(info.recordsPerKor[0], 1u);
    EXPECT_EQ(info.recordsPerKor[1], 2u);
    EXPECT_EQ(info.recordsPerKor[2], 1u);
    EXPECT_EQ((info.recordsPerId.at({1, 0x35})), 2u);
    EXPECT_EQ((info.recordsPerId.at({2, 0x200})), 1u);
    EXPECT_EQ(info.firstTime, 100u);
    EXPECT_EQ(info.lastTime, 50u);
    EXPECT_EQ(info.minTime, 0x10u);
    EXPECT_EQ(info.maxTime, 0x0100000005ull);
    EXPECT_EQ(info.syncErrors, 1u);
    ASSERT_EQ(info.gaps.size(), 1u);
    EXPECT_EQ(info.gaps[0].offset, 40u);
    EXPECT_EQ(info.gaps[0].skipped, 11u);

    ZvAString text;
    QoZolInfo::Format(path.c_str(), info, text);
    EXPECT_NE(text.find("Total bytes: " + std::to_string(bytes.size())), std::string::npos);
    EXPECT_NE(text.find("KOR 2: 1"), std::string::npos);
    EXPECT_NE(text.find("lost step after offset 0x00000028, skipped 11 bytes"), std::string::npos);

    ZvAString error;
    EXPECT_FALSE(QoZolInfo::GetInfo((dir.path + "/none.zom").c_str(), info, nullptr, &error));
    EXPECT_NE(error.find("Failed to open"), std::string::npos);
}

} // namespace
