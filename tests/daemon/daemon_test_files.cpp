#include "daemon_test_files.h"

#include <algorithm>
#include <dirent.h>
#include <sstream>

namespace daemon_test {

std::string MakeStream(size_t size, unsigned seed) {
    std::string out(size, '\0');
    unsigned state = seed * 2654435761u + 1;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        out[i] = static_cast<char>(state >> 16);
    }
    return out;
}

std::vector<std::string> ZomFiles(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (dirent* entry = readdir(handle)) {
            std::string name = entry->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".zom") == 0 &&
                entry->d_type == DT_REG)
                names.push_back(name);
        }
        closedir(handle);
    }
    std::sort(names.begin(), names.end());
    return names;
}

long long ZomBytes(const std::string& dir) {
    long long total = 0;
    for (const std::string& name : ZomFiles(dir))
        total += zavra_test::FileSize(dir + "/" + name);
    return total;
}

std::string ZomConcat(const std::string& dir) {
    std::string all;
    for (const std::string& name : ZomFiles(dir))
        all += zavra_test::ReadFile(dir + "/" + name);
    return all;
}

std::vector<std::string> JournalLines(const std::string& dir) {
    std::istringstream journal(zavra_test::ReadFile(dir + "/daemon.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(journal, line);)
        lines.push_back(line);
    return lines;
}

int JournalCount(const std::string& dir, const std::string& text) {
    auto lines = JournalLines(dir);
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
        return l.find(text) != std::string::npos;
    }));
}

} // namespace daemon_test
