#include "app_test_tool.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace apptest {

Bytes Hex(const char* text) {
    Bytes out;
    int high = -1;
    for (const char* p = text; *p != 0; ++p) {
        if (!isxdigit(static_cast<unsigned char>(*p)))
            continue;
        int nibble = isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : (tolower(*p) - 'a' + 10);
        if (high < 0) {
            high = nibble;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
    return out;
}

std::string ToHex(const Bytes& bytes) {
    std::string text;
    char part[4];
    for (uint8_t b : bytes) {
        snprintf(part, sizeof part, "%02X ", b);
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

std::string CompareFiles(const std::string& a, const std::string& b, long long size) {
    std::string da = zavra_test::ReadFile(a), db = zavra_test::ReadFile(b);
    size_t n = static_cast<size_t>(size);
    if (da.size() < n || db.size() < n)
        return "a file is shorter than " + std::to_string(size) + " bytes";
    auto diff = std::mismatch(da.begin(), da.begin() + size, db.begin());
    return diff.first == da.begin() + size
               ? ""
               : "first difference at offset " + std::to_string(diff.first - da.begin());
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
