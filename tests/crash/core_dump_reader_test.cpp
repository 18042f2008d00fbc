// The core dump reader without a modem: the text it searches for a marker stays bounded.
#include <gtest/gtest.h>

#include "zavra_test_files.h"
#include "zv-at-core-dump.h"
#include "zv-file.h"

TEST(CoreDumpReader, TextWithoutAMarkerStaysBoundedAndAMarkerAcrossTheCutIsFound) {
    zavra_test::TempDir dir;
    ZvFile file;
    ASSERT_TRUE(file.Open(dir.File("exr").c_str(), "wb"));
    ZvAtCoreDumpReader reader(file);
    ZvAString status;
    const auto feed = [&](const std::string& chunk) {
        reader.OnChunk(reinterpret_cast<const unsigned char*>(chunk.data()),
                       static_cast<unsigned>(chunk.size()), status);
    };
    const std::string noise(50000, 'x');
    size_t largest = 0;
    for (int i = 0; i < 400; ++i) { // 20 MB of text that never names a marker
        feed(noise);
        largest = std::max(largest, reader.SearchTextSize());
    }
    EXPECT_LE(largest, ZvAtCoreDumpReader::kSearchLimit + noise.size());
    feed(noise + "\r\nNo Full Core");
    EXPECT_EQ(ZvAtCoreDumpReader::State::Searching, reader.GetState());
    feed(" Dump Available\r\n");
    EXPECT_EQ(ZvAtCoreDumpReader::Outcome::NoDumpAvailable, reader.GetOutcome());
    EXPECT_EQ("No full core dump available.", status);
    file.Close();
    EXPECT_EQ(0, zavra_test::FileSize(dir.File("exr")));
}
