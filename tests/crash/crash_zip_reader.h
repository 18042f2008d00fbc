// Zips read by Python's zipfile, a reader that shares no code with the project's writer; a
// logger that keeps a test's warnings; the target's own crash dump zip.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "zv-log.h"

namespace crash_test {

// Name and content of every entry, after zipfile's own CRC check; false when no valid zip.
bool ReadZip(const std::string& path, std::map<std::string, std::string>& entries);
// `data` in base64 lines of 76 characters ending in CR LF, encoded by Python.
std::string Base64Lines(const std::string& data);
// Writes a zip with these entries through zipfile, the names as they are (however unsafe).
bool WriteZip(const std::string& path, const std::map<std::string, std::string>& entries);
// Writes the target's crash dump zip below to `path`, decoded from base64 by coreutils.
bool WriteTargetZip(const std::string& path);

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

// A crash dump zip as the target sends it, made by Python's zipfile, base64 in lines of 64
// characters: "bb_events.txt" holding kTargetEvents, and "regs.bin" (stored) holding the bytes 0
// to 255.
extern const char* const kTargetZipBase64;
extern const char* const kTargetEvents;
// Its entries by name, as ReadZip gives them.
std::map<std::string, std::string> TargetZipEntries();

} // namespace crash_test
