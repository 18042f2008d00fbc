// Zips read and written by Python's zipfile, so that the project's zips are checked by a reader
// that shares no code with the writer. Also a logger that keeps the warnings of a test.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zv-log.h"

namespace crash_test {

struct ZipEntry {
    int method = -1; // 0 stored, 8 deflated
    std::string data;
};
using ZipEntries = std::map<std::string, ZipEntry>;

// Reads every entry after zipfile's own check of the CRCs. False, with the reader's complaint in
// `error`, when the file is no valid zip.
bool ReadZip(const std::string& path, ZipEntries& entries, std::string* error = nullptr);
// Writes a zip holding each name with the content of its file, deflated.
bool WriteZip(const std::string& path,
              const std::vector<std::pair<std::string, std::string>>& nameAndSource);

// Keeps the messages logged while it is installed; removes itself when destroyed.
class WarningLog : public ZvLog {
public:
    WarningLog() { ZvLog::SetLogger(this); }
    ~WarningLog() override { ZvLog::SetLogger(nullptr); }
    void DoLog(Info* info) override {
        messages.push_back(info->message);
        delete info;
    }
    std::vector<std::string> messages;
};

// A crash dump zip as the target sends it, in base64 lines of 64 characters: "bb_events.txt"
// (deflated) and "regs.bin" (stored, the bytes 0 to 255).
extern const char* const kTargetZipBase64;
extern const char* const kTargetEvents;

} // namespace crash_test
