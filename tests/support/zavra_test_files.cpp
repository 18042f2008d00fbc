#include "zavra_test_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace zavra_test {

namespace {
// Never follows a symbolic link: a link to a directory is removed, not what it points to.
void RemoveTree(const std::string& path) {
    struct stat info;
    DIR* dir =
        lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) ? opendir(path.c_str()) : nullptr;
    if (dir == nullptr) {
        unlink(path.c_str());
        return;
    }
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            RemoveTree(path + "/" + name);
    }
    closedir(dir);
    rmdir(path.c_str());
}
} // namespace

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = (base != nullptr && *base != 0 ? base : "/tmp");
    pattern += "/zavra_test_XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr)
        m_path = pattern;
}

TempDir::~TempDir() {
    if (!m_path.empty())
        RemoveTree(m_path);
}

std::string ReadFile(const std::string& path) {
    std::string data;
    if (FILE* file = fopen(path.c_str(), "rb")) {
        char buffer[65536];
        for (size_t got; (got = fread(buffer, 1, sizeof buffer, file)) > 0;)
            data.append(buffer, got);
        fclose(file);
    }
    return data;
}

bool WriteFile(const std::string& path, const std::string& data) {
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr)
        return false;
    bool ok = fwrite(data.data(), 1, data.size(), file) == data.size();
    return fclose(file) == 0 && ok;
}

long long FileSize(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

} // namespace zavra_test
