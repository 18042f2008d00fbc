#include "zv-at-port-util.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "zv-at-core-dump.h"
#include "zv-at-port-socket.h"
#include "zv-at-port.h"
#include "zv-device-detect.h"
#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-time.h"

namespace {

constexpr unsigned kSerialTimeoutMs = 300;
constexpr unsigned kSocketTimeoutMs = 500;
constexpr unsigned kSerialAttempts = 35;
constexpr unsigned kAttemptMs = 400;
constexpr unsigned kSocketWaitMs = 30000;
constexpr unsigned kCapabilityTries = 4;
constexpr unsigned kCapabilityRetryMs = 200;
constexpr unsigned kBulkChunkSize = 50000;
// A serial read brings about 4 KiB of a dump; the file takes them 64 KiB at a time, so the dump
// costs far fewer writes than reads.
constexpr size_t kDumpFileBufferSize = 64 * 1024;
// A crash information reply or crash log of 200 bytes or fewer is too short to hold a crash
// (a target with nothing to report still answers a line or two); such files are dropped.
constexpr long long kMinUsefulSize = 200;

const char kModeQuery[] = "at%mode?\r";
const char kLoaderMode[] = "%MODE: 1";
const char kModemMode[] = "%MODE: 0";
const char kNoFullDumpModes[] = "%DEBUG: (0,1,2)";

bool AnyLineStartsWith(const ZvAStringList& lines, const char* prefix) {
    const size_t length = strlen(prefix);
    for (unsigned i = 0; i < lines.Count(); ++i) {
        if (lines[i].compare(0, length, prefix) == 0)
            return true;
    }
    return false;
}

// Asks an open port for its mode; true when the reply is OK and names the loader.
bool AnswersLoaderMode(ZvAtPort& port) {
    ZvAStringList lines;
    return port.SendAtCommand(kModeQuery, lines) && lines.Count() > 0 &&
           ZvAtPort::IsAtResponseOk(lines) && AnyLineStartsWith(lines, kLoaderMode);
}

// The interface of a device the crash check talks to: its first SERIAL MODEM interface, else its
// first SERIAL one of unknown function.
ZvInterfaceInfo* ChooseAtInterface(const ZvDeviceInfo& device) {
    ZvInterfaceInfo* info = device.FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionModem);
    if (info == nullptr)
        info = device.FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown);
    return info;
}

// Reads chunks into the file until the target falls silent or a read fails (readFailed); the
// bytes written either way. Past `limit` bytes nothing more is written (tooLarge), but the rest
// is still read, so that the next command finds the port quiet.
long long CopyUntilSilent(ZvAtPort& port, ZvFile& file, std::vector<unsigned char>& buffer,
                          unsigned long long limit, bool& readFailed, bool& tooLarge) {
    long long written = 0;
    readFailed = false;
    tooLarge = false;
    for (;;) {
        unsigned received = 0;
        if (!port.OnPortRead(buffer.data(), kBulkChunkSize, received)) {
            readFailed = true;
            return written;
        }
        if (received == 0)
            return written;
        tooLarge = tooLarge || static_cast<unsigned long long>(written) + received > limit;
        if (!tooLarge)
            written += static_cast<long long>(file.Write(buffer.data(), received));
    }
}

// Reports each line of a reader's status text on its own.
void ReportLines(ZvAtCrash& crash, const ZvAString& status) {
    size_t start = 0;
    while (start < status.size()) {
        size_t end = status.find('\n', start);
        if (end == ZvAString::npos)
            end = status.size();
        crash.OnStatus(status.substr(start, end - start).c_str());
        start = end + 1;
    }
}

} // namespace

void ZvAtCrash::OnStatus(const char*) {}

bool ZvAtCrash::StopCheck() {
    return false;
}

void ZvAtCrash::OnDumpSize(unsigned long long) {}

void ZvAtCrash::OnDumpProgress(unsigned long long, unsigned long long, bool) {}

unsigned long long ZvAtCrash::DiskLeft() const {
    if (diskLimit == 0)
        return ULLONG_MAX;
    return diskLimit > m_diskUsed ? diskLimit - m_diskUsed : 0;
}

bool ZvAtIsModemInLoaderMode(const char* portName) {
    if (portName == nullptr)
        return false;
    ZvAtPortSerial port(portName, kSerialTimeoutMs);
    return port.Open() && AnswersLoaderMode(port);
}

bool ZvAtIsModemInLoaderMode(const ZvInterfaceInfo* atInterface) {
    return atInterface != nullptr && ZvAtIsModemInLoaderMode(atInterface->portName.c_str());
}

ZvInterfaceInfo* ZvAtCheckForCrashedTarget(const ZvDeviceDetect& detect) {
    ZvInterfaceInfo* found = nullptr;
    const ZvDeviceList& devices = detect.Tree().devices;
    for (unsigned i = 0; i < devices.Count(); ++i) {
        ZvInterfaceInfo* info = ChooseAtInterface(*devices.FindDevice(i));
        if (info != nullptr && ZvAtIsModemInLoaderMode(info))
            found = info; // the last device in loader mode wins
    }
    return found;
}

bool ZvAtCheckForCrash(const ZvDeviceDetect& detect, ZvAtCrash::Response& response,
                       ZvAtCrash& crash) {
    ZvInterfaceInfo kept;
    bool found = false;
    const ZvDeviceList& devices = detect.Tree().devices;
    for (unsigned i = 0; i < devices.Count(); ++i) {
        const ZvInterfaceInfo* info = ChooseAtInterface(*devices.FindDevice(i));
        if (info == nullptr)
            continue;
        ZvAtPortSerial port(info->portName.c_str(), kSerialTimeoutMs);
        if (port.Open() && AnswersLoaderMode(port)) {
            // A copy: the check refreshes detection, which may drop the records of `detect`.
            kept = *info;
            found = true;
        }
    }
    return found && crash.CheckForCrash(&kept, response);
}

bool ZvAtCrash::StartCheck(Response& response, const char* waitText) {
    response.crashFound = false;
    errorText.clear();
    if (StopCheck()) {
        errorText = "Checking for crash information was stopped.";
        return false;
    }
    OnStatus("Possible target crash.");
    OnStatus(waitText);
    return true;
}

bool ZvAtCrash::CheckForCrash(const ZvInterfaceInfo* atInterface, Response& response) {
    if (!StartCheck(response, "Waiting for device to restart (takes about 10 seconds)."))
        return false;

    ZvAtPortSerial port(nullptr, kSerialTimeoutMs);
    ZvDeviceDetect detect;
    bool stopped = false;
    for (unsigned attempt = 0; attempt < kSerialAttempts; ++attempt) {
        if (StopCheck()) {
            stopped = true;
            break;
        }
        // The modem re-enumerates after its restart: wait until its AT interface is back. It is
        // known by its USB identity (vendor, product, interface number and serial number); its
        // node may be another one now, when the old one was still held open as it went.
        detect.Refresh();
        const ZvInterfaceInfo* back =
            atInterface == nullptr
                ? nullptr
                : detect.Interfaces().FindInterfaceId(atInterface->uniqueId.c_str());
        if (back != nullptr && !back->portName.empty()) {
            port.SetPortName(back->portName.c_str());
            if (port.Open())
                break;
        }
        ZvTime::Sleep(kAttemptMs);
    }
    return FinishCheck(port, stopped, response);
}

bool ZvAtCrash::CheckForCrashSocket(int port, const char* address, Response& response) {
    if (!StartCheck(response, "Waiting for device to restart (takes about 30 seconds)."))
        return false;

    ZvAtPortSocket atPort(address, port, kSocketTimeoutMs);
    bool stopped = false;
    const unsigned start = ZvTime::GetMsTickTime();
    do {
        const unsigned attemptStart = ZvTime::GetMsTickTime();
        if (StopCheck()) {
            stopped = true;
            break;
        }
        if (atPort.Open())
            break;
        if (ZvTime::DiffMsTime(attemptStart, ZvTime::GetMsTickTime()) < kAttemptMs)
            ZvTime::Sleep(kAttemptMs);
    } while (ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()) < kSocketWaitMs);
    return FinishCheck(atPort, stopped, response);
}

bool ZvAtCrash::FinishCheck(ZvAtPort& port, bool stopped, Response& response) {
    if (stopped || StopCheck()) {
        OnStatus("Crash check cancelled.");
    } else if (!port.OnIsOpen()) {
        errorText = port.errorText;
        OnStatus("No crash information detected (port could not be opened).");
    } else {
        RetrieveCrash(port, response);
    }
    return response.crashFound;
}

bool ZvAtCrash::GetCrash(const char* portName, Response& response) {
    response.crashFound = false;
    errorText.clear();
    ZvAtPortSerial port(portName, kSerialTimeoutMs);
    if (!port.Open()) {
        errorText = port.errorText;
        return false;
    }
    return RetrieveCrash(port, response);
}

bool ZvAtCrash::RetrieveCrash(ZvAtPort& port, Response& response) {
    response.crashFound = false;
    if (!port.OnIsOpen())
        return false;
    OnStatus("Checking if target crash information is available.");
    ZvFileUtil::GetTempFileName("exr", response.coreDumpFile);
    ZvFileUtil::GetTempFileName("crh", response.crashInfoFile);
    ZvFileUtil::GetTempFileName("clf", response.crashLogFile);
    response.coreDumpRaw = true;
    m_diskUsed = 0;

    ZvAStringList infoCommands;
    infoCommands.Add("at%debug=0,0\r");
    std::vector<unsigned char> buffer(kBulkChunkSize);

    const bool fullDump = QueryFullDump(port);
    bool reset = true;
    ZvAStringList lines;
    if (port.SendAtCommand(kModeQuery, lines) && lines.Count() > 0 &&
        ZvAtPort::IsAtResponseOk(lines) && AnyLineStartsWith(lines, kModemMode)) {
        reset = false; // already in modem mode: nothing to dump, nothing to reset
    } else if (fullDump) {
        ReadCoreDump(port, response, infoCommands, buffer, reset);
    }

    ReadCrashInfo(port, response, infoCommands, buffer);
    ReadCrashLog(port, response, buffer);

    if (retrieveHistory && errorText.empty() && !port.SendAtCommandOk("at%debug=99\r"))
        ReportPortFailure(port, "Failed to target crash history.");
    if (reset) {
        if (!port.SendAtCommand("at%mode=0\r")) {
            ReportPortFailure(port, "Failed to set target to modem mode.");
        } else if (!port.SendAtCommand("at%zreset\r")) {
            ReportPortFailure(port, "Failed to reset target.");
        } else {
            port.GetResponse(lines);
        }
    }
    port.OnClose();
    port.errorText.clear();

    KeepIfNotEmpty(response.coreDumpFile, &response.crashFound);
    KeepIfNotEmpty(response.crashInfoFile, &response.crashFound);
    KeepIfNotEmpty(response.crashLogFile, nullptr);
    if (!response.crashFound)
        OnStatus("No crash information detected.");
    return response.crashFound;
}

bool ZvAtCrash::QueryFullDump(ZvAtPort& port) {
    ZvAStringList lines;
    for (unsigned attempt = 0; attempt < kCapabilityTries; ++attempt) {
        if (port.SendAtCommand("at%debug=?\r", lines) && lines.Count() > 0) {
            // A target listing exactly the modes 0, 1 and 2 is not asked for a full dump, and
            // neither is one without an OK. This reading of the reply is what targets expect.
            return ZvAtPort::IsAtResponseOk(lines) && !AnyLineStartsWith(lines, kNoFullDumpModes);
        }
        ZvTime::Sleep(kCapabilityRetryMs);
    }
    return false;
}

void ZvAtCrash::ReadCoreDump(ZvAtPort& port, Response& response, ZvAStringList& infoCommands,
                             std::vector<unsigned char>& buffer, bool& reset) {
    if (!port.SendAtCommand("at%debug=2,1\r")) {
        errorText = port.errorText;
        return;
    }
    // Declared before the file, so that it outlives the stream that uses it.
    std::vector<char> fileBuffer(kDumpFileBufferSize);
    ZvFile file;
    if (!file.Open(response.coreDumpFile.c_str(), "wb")) {
        errorText.Printf("Failed to open '%s'", response.coreDumpFile.c_str());
        return;
    }
    setvbuf(file.GetHandle(), fileBuffer.data(), _IOFBF, fileBuffer.size());
    // With no room left at all the dump is refused like one that does not fit.
    const unsigned long long room = diskLimit == 0 ? 0 : std::max(DiskLeft(), 1ULL);
    ZvAtCoreDumpReader reader(file, room, [this](unsigned long long size) { OnDumpSize(size); });
    ZvAString status;
    while (reader.GetState() != ZvAtCoreDumpReader::State::Ended) {
        unsigned received = 0;
        if (!port.OnPortRead(buffer.data(), kBulkChunkSize, received)) {
            errorText = "Failed to read from AT port.";
            // Reopened so that the crash information can still be asked for.
            port.OnClose();
            port.errorText.clear();
            port.Open();
            reset = true;
            break;
        }
        if (received == 0) {
            reset = true;
            break;
        }
        reader.OnChunk(buffer.data(), received, status);
        ReportLines(*this, status);
        if (reader.Written() != 0)
            OnDumpProgress(reader.Written(), reader.Announced(), false);
    }
    OnDumpProgress(reader.Written(), reader.Announced(), true);
    switch (reader.GetOutcome()) {
    case ZvAtCoreDumpReader::Outcome::DumpError:
        // The target cannot send a full dump but keeps its crash information for this command.
        infoCommands.Insert(0, "at%debug=1,0\r");
        reset = false;
        break;
    case ZvAtCoreDumpReader::Outcome::NoDumpAvailable:
    case ZvAtCoreDumpReader::Outcome::NoNewDumpAvailable:
        reset = true;
        break;
    case ZvAtCoreDumpReader::Outcome::TooLarge:
    case ZvAtCoreDumpReader::Outcome::None:
        break;
    }
    if (!reader.IsRaw())
        response.coreDumpRaw = false;
    const bool written = file.Flush() && !file.IsError();
    file.Close();
    // A dump cut short, by the target or by the room for it, is no dump: nothing half-written is
    // left for the bundle.
    bool drop = reader.GetOutcome() == ZvAtCoreDumpReader::Outcome::TooLarge;
    if (!drop && reader.IsIncomplete()) {
        status.Printf("The core dump stopped after %llu of %u bytes; it is not saved.",
                      reader.Written(), reader.Announced());
        OnStatus(status.c_str());
        drop = true;
    }
    if (!drop && !written) {
        errorText.Printf("Failed to write '%s'", response.coreDumpFile.c_str());
        drop = true;
    }
    if (drop)
        ZvFileUtil::DelFile(response.coreDumpFile.c_str());
    else
        m_diskUsed += reader.Written();
}

long long ZvAtCrash::SaveReply(ZvAtPort& port, const char* command, const ZvAString& path,
                               std::vector<unsigned char>& buffer, const char* what) {
    if (!port.SendAtCommand(command)) {
        errorText = port.errorText;
        return -1;
    }
    ZvFile file;
    if (!file.Open(path.c_str(), "wb")) {
        errorText.Printf("Failed to open '%s'", path.c_str());
        return -1;
    }
    bool readFailed = false, tooLarge = false;
    const long long written = CopyUntilSilent(port, file, buffer, DiskLeft(), readFailed, tooLarge);
    if (readFailed)
        errorText = "Failed to read from AT port.";
    const bool complete = file.Flush() && !file.IsError();
    file.Close();
    if (tooLarge) {
        ZvAString status;
        status.Printf("The %s grew past the room for crash data (%llu bytes); it is not saved.",
                      what, diskLimit);
        OnStatus(status.c_str());
    } else if (!complete) {
        errorText.Printf("Failed to write '%s'", path.c_str());
    }
    if (tooLarge || !complete || written <= kMinUsefulSize) {
        ZvFileUtil::DelFile(path.c_str());
        return tooLarge || !complete ? 0 : written;
    }
    m_diskUsed += static_cast<unsigned long long>(written);
    return written;
}

void ZvAtCrash::ReadCrashInfo(ZvAtPort& port, Response& response, const ZvAStringList& infoCommands,
                              std::vector<unsigned char>& buffer) {
    for (unsigned i = 0; i < infoCommands.Count(); ++i) {
        if (SaveReply(port, infoCommands[i].c_str(), response.crashInfoFile, buffer,
                      "crash information") > kMinUsefulSize) {
            OnStatus("Retrieved crash dump information.");
            return;
        }
    }
}

void ZvAtCrash::ReadCrashLog(ZvAtPort& port, Response& response,
                             std::vector<unsigned char>& buffer) {
    SaveReply(port, "at%debug\r", response.crashLogFile, buffer, "crash log");
}

void ZvAtCrash::ReportPortFailure(ZvAtPort& port, const char* text) {
    OnStatus(text);
    // The further status is sent only when the port has no message of its own (then an empty
    // one); a port message stays in the port's error text. Observers see this pairing as is.
    if (port.errorText.empty())
        OnStatus(port.errorText.c_str());
}

void ZvAtCrash::KeepIfNotEmpty(ZvAString& path, bool* crashFound) {
    const long long size = ZvFileUtil::GetFileSize(path.c_str());
    if (size == 0)
        ZvFileUtil::DelFile(path.c_str());
    if (size <= 0)
        path.clear();
    else if (crashFound != nullptr)
        *crashFound = true;
}
