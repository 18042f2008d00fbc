#include "app_test_tool.h"

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
    FILE* fa = fopen(a.c_str(), "rb");
    FILE* fb = fopen(b.c_str(), "rb");
    std::string result;
    if (fa == nullptr || fb == nullptr) {
        result = "cannot open " + std::string(fa == nullptr ? a : b);
    } else {
        std::vector<char> ba(1 << 20), bb(1 << 20);
        long long offset = 0;
        while (offset < size && result.empty()) {
            size_t want = static_cast<size_t>(std::min<long long>(size - offset, 1 << 20));
            size_t ga = fread(ba.data(), 1, want, fa);
            size_t gb = fread(bb.data(), 1, want, fb);
            for (size_t i = 0; i < std::min(ga, gb); ++i)
                if (ba[i] != bb[i]) {
                    result = "first difference at offset " + std::to_string(offset + i);
                    break;
                }
            if (result.empty() && (ga != want || gb != want))
                result = "a file ends early near offset " + std::to_string(offset);
            offset += static_cast<long long>(want);
        }
    }
    if (fa != nullptr)
        fclose(fa);
    if (fb != nullptr)
        fclose(fb);
    return result;
}

std::vector<zsim::HostRecord> RecordsAfterOpen(const zsim::Modem& modem, unsigned openId) {
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
