#include "zavra_test_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace zavra_test {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != 0 ? base : "/tmp") + "/zavra_test_XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back(0);
    if (mkdtemp(name.data()) != nullptr)
        m_path = name.data();
}

TempDir::~TempDir() {
    if (!m_path.empty())
        RemoveTree(m_path);
}

std::string TempDir::File(const std::string& name) const {
    return m_path + "/" + name;
}

std::string ReadFile(const std::string& path) {
    std::string data;
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return data;
    char buffer[65536];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, file)) > 0)
        data.append(buffer, got);
    fclose(file);
    return data;
}

bool WriteFile(const std::string& path, const std::string& data) {
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr)
        return false;
    bool ok = fwrite(data.data(), 1, data.size(), file) == data.size();
    return fclose(file) == 0 && ok;
}

bool FileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

long long FileSize(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? static_cast<long long>(info.st_size) : -1;
}

void RemoveTree(const std::string& path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0)
        return;
    if (S_ISDIR(info.st_mode)) {
        if (DIR* dir = opendir(path.c_str())) {
            while (dirent* entry = readdir(dir)) {
                std::string name = entry->d_name;
                if (name != "." && name != "..")
                    RemoveTree(path + "/" + name);
            }
            closedir(dir);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

} // namespace zavra_test
