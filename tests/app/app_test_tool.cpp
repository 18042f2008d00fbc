#include "app_test_tool.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace apptest {

Bytes Hex(const char* text) {
    std::string digits;
    for (const char* p = text; *p != 0; ++p)
        if (isxdigit(static_cast<unsigned char>(*p)))
            digits += *p;
    Bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string ToHex(const Bytes& bytes) {
    std::string text;
    char part[3];
    for (uint8_t b : bytes) {
        snprintf(part, sizeof part, "%02X", b);
        text += part;
    }
    return text;
}

Bench::Bench() {
    options.dir = dir.Path();
    options.teeFile = dir.File("sent.bin");
    options.gen.enabled = false;
}

void Bench::StartModem() {
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
}

void StartTool(zavra_test::Process& tool, const std::vector<std::string>& args) {
    ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
}

void ExpectExit(zavra_test::Process& tool, int status, int timeoutMs) {
    if (!tool.Wait(timeoutMs)) {
        tool.Kill();
        FAIL() << "the tool did not end in time; stderr:\n" << tool.Stderr();
    }
    EXPECT_EQ(tool.ExitCode(), status) << zavra_test::Describe(tool);
}

void ExpectCaptured(const std::string& file, Bench& bench, uint64_t size) {
    bench.modem.FlushFiles();
    const std::string got = zavra_test::ReadFile(file), sent = zavra_test::ReadFile(bench.Sent());
    ASSERT_EQ(got.size(), size);
    ASSERT_GE(sent.size(), size);
    auto diff = std::mismatch(got.begin(), got.end(), sent.begin());
    EXPECT_TRUE(diff.first == got.end()) << "first difference at " << diff.first - got.begin();
}

std::vector<zsim::HostRecord> RecordsAfterOpen(const zsim::Modem& modem, unsigned openId) {
    modem.WaitForHostQuiet(150, 3000); // what the tool wrote just before it exited
    std::vector<zsim::HostRecord> all = modem.Records();
    std::vector<zsim::HostRecord> after;
    bool open = false;
    for (const zsim::HostRecord& r : all) {
        if (open)
            after.push_back(r);
        else if (r.id == openId && r.kor == 1)
            open = true;
    }
    return after;
}

} // namespace apptest
