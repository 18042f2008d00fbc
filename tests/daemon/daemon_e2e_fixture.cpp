#include "daemon_e2e_fixture.h"

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <sys/stat.h>
#include <thread>

namespace daemon_e2e {

DaemonRun::DaemonRun() {
    store = scratch.File("store");
    mkdir(store.c_str(), 0755);
    options.dir = scratch.Path();
    options.teeFile = Sent();
    options.gen.enabled = false;
}

void DaemonRun::StartModem(uint64_t bytes, uint64_t rate) {
    options.gen.enabled = true;
    options.gen.stopAfterBytes = bytes;
    options.gen.bytesPerSecond = rate;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
}

void DaemonRun::StartTool(const std::string& sizes, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {"-d" + modem.PortPath(),
                                     "-a" + store + (sizes.empty() ? "" : "," + sizes), "-t"};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(tool.Start(ZAVRA_LOG_SERIAL_PATH, args)) << tool.Error();
}

void DaemonRun::Terminate() {
    tool.Signal(SIGTERM);
    if (!tool.Wait(10000)) {
        tool.Kill();
        FAIL() << "the tool did not end in time; stderr:\n" << tool.Stderr();
    }
    EXPECT_EQ(tool.ExitCode(), 15) << zavra_test::Describe(tool);
    modem.FlushFiles();
}

std::vector<std::string> DaemonRun::Journal() const {
    std::vector<std::string> lines;
    std::string text = zavra_test::ReadFile(StoreFile("daemon.log"));
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool DaemonRun::WaitForJournal(const std::string& text, int count, int timeoutMs) const {
    for (int waited = 0;; waited += 20) {
        if (Count(Journal(), text) >= count)
            return true;
        if (waited >= timeoutMs)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::vector<std::string> ZomNames(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (dirent* entry = readdir(handle)) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zom") == 0)
                names.push_back(name);
        }
        closedir(handle);
    }
    std::sort(names.begin(), names.end());
    return names;
}

long long ZomSize(const std::string& dir) {
    long long total = 0;
    for (const std::string& name : ZomNames(dir)) {
        struct stat info;
        if (stat((dir + "/" + name).c_str(), &info) == 0)
            total += info.st_size;
    }
    return total;
}

std::string ZomContents(const std::string& dir) {
    std::string all;
    for (const std::string& name : ZomNames(dir))
        all += zavra_test::ReadFile(dir + "/" + name);
    return all;
}

int Count(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.find(text) != std::string::npos;
    }));
}

std::string ReadPart(const std::string& path, size_t offset, size_t size) {
    std::string all = zavra_test::ReadFile(path);
    if (offset >= all.size())
        return std::string();
    return all.substr(offset, size);
}

} // namespace daemon_e2e
