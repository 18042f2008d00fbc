#include "daemon_store_fixture.h"

#include <chrono>
#include <thread>

namespace daemon_test {

bool Store::Start(unsigned long long total, unsigned long long file) {
    ZvVer version(1, 8);
    if (!daemon.Initialise(dir.c_str(), total, file, version))
        return false;
    for (int waited = 0; waited < 5000 && !daemon.IsPortOpen(); waited += 5)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return daemon.IsPortOpen();
}

void Store::Feed(const std::string& stream, size_t chunk) {
    for (size_t at = 0; at < stream.size(); at += chunk) {
        std::string piece = stream.substr(at, chunk);
        daemon.NewLogData(reinterpret_cast<unsigned char*>(&piece[0]),
                          static_cast<unsigned>(piece.size()));
    }
}

std::vector<std::string> Store::Order() {
    ZvAStringList list;
    daemon.GetFileList(list);
    std::vector<std::string> names;
    for (unsigned i = 0; i < list.Count(); ++i)
        names.push_back(list[i].substr(list[i].rfind('/') + 1));
    return names;
}

} // namespace daemon_test
