#include "daemon_store_fixture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

#include "zv-string-list-ascii.h"

namespace daemon_test {

bool RecordingDaemon::OpenPort() {
    ++opens;
    if (failingOpens > 0) {
        --failingOpens;
        return false;
    }
    return true;
}

void RecordingDaemon::SendPort(unsigned char* data, unsigned int size) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_sent.append(reinterpret_cast<const char*>(data), size);
    m_largestPiece = std::max<size_t>(m_largestPiece, size);
}

std::string RecordingDaemon::SentToPort() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_sent;
}

size_t RecordingDaemon::LargestPieceToPort() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_largestPiece;
}

ScratchDir::ScratchDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/zl_daemon_XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr)
        m_path = buffer.data();
}

ScratchDir::~ScratchDir() {
    if (!m_path.empty())
        system(("rm -rf '" + m_path + "'").c_str());
}

std::string MakeStream(size_t size, unsigned seed) {
    std::string out(size, '\0');
    unsigned state = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        out[i] = static_cast<char>(state >> 16);
    }
    return out;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void WriteFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary);
    out << data;
}

std::vector<std::string> ZomFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr)
        return names;
    while (dirent* entry = readdir(handle)) {
        std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zom") == 0 &&
            entry->d_type == DT_REG)
            names.push_back(name);
    }
    closedir(handle);
    std::sort(names.begin(), names.end());
    return names;
}

long long ZomBytes(const std::string& dir) {
    long long total = 0;
    for (const std::string& name : ZomFiles(dir))
        total += static_cast<long long>(ReadFile(dir + "/" + name).size());
    return total;
}

std::string ZomConcat(const std::string& dir) {
    std::string all;
    for (const std::string& name : ZomFiles(dir))
        all += ReadFile(dir + "/" + name);
    return all;
}

std::vector<std::string> JournalLines(const std::string& dir) {
    ZvAStringList lines;
    lines.LoadFromFile(dir + "/daemon.log");
    std::vector<std::string> out;
    for (unsigned i = 0; i < lines.Count(); ++i)
        out.push_back(lines[i]);
    return out;
}

int CountLines(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.find(text) != std::string::npos;
    }));
}

void Feed(ZlZomDaemon& daemon, const std::string& stream, size_t chunk) {
    for (size_t at = 0; at < stream.size(); at += chunk) {
        std::string piece = stream.substr(at, chunk);
        daemon.NewLogData(reinterpret_cast<unsigned char*>(&piece[0]),
                          static_cast<unsigned>(piece.size()));
    }
}

bool Start(RecordingDaemon& daemon, const std::string& dir, unsigned long long total,
           unsigned long long file) {
    ZvVer version(1, 8);
    if (!daemon.Initialise(dir.c_str(), total, file, version))
        return false;
    return WaitUntil([&] { return daemon.IsPortOpen(); }, 5000);
}

int FreeTcpPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    close(fd);
    return port;
}

int ConnectTcp(int port, int timeoutMs) {
    int fd = -1;
    WaitUntil(
        [&] {
            fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(port));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
                return true;
            close(fd);
            fd = -1;
            return false;
        },
        timeoutMs);
    return fd;
}

} // namespace daemon_test
