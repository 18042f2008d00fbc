#include "zavra_test_files.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace zavra_test {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = (base != nullptr && *base != 0 ? base : "/tmp");
    pattern += "/zavra_test_XXXXXX";
    if (mkdtemp(&pattern[0]) != nullptr)
        m_path = pattern;
}

TempDir::~TempDir() {
    // remove_all never follows a symbolic link: a link to a directory goes, not what it points to.
    std::error_code ignored;
    if (!m_path.empty())
        std::filesystem::remove_all(m_path, ignored);
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
