// What the daemon leaves in its directory, read back for the tests.
#pragma once

#include <algorithm>
#include <dirent.h>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "zavra_test_files.h"

namespace daemon_test {

// The regular ".zom" files of a directory, oldest first: by log, then by segment number
// ("_1000" after "_999").
inline std::vector<std::string> ZomFiles(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* handle = opendir(dir.c_str())) {
        while (dirent* entry = readdir(handle)) {
            const std::string name = entry->d_name;
            if (entry->d_type == DT_REG && name.size() > 4 && name.rfind(".zom") == name.size() - 4)
                names.push_back(name);
        }
        closedir(handle);
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::make_tuple(a.substr(0, 24), a.size(), a) <
               std::make_tuple(b.substr(0, 24), b.size(), b);
    });
    return names;
}

// Their total size, and their contents in that order.
inline long long ZomBytes(const std::string& dir) {
    long long total = 0;
    for (const std::string& name : ZomFiles(dir))
        total += zavra_test::FileSize(dir + "/" + name);
    return total;
}
inline std::string ZomConcat(const std::string& dir) {
    std::string all;
    for (const std::string& name : ZomFiles(dir))
        all += zavra_test::ReadFile(dir + "/" + name);
    return all;
}

// The journal's lines, and how many of them contain `text`.
inline std::vector<std::string> JournalLines(const std::string& dir) {
    std::istringstream journal(zavra_test::ReadFile(dir + "/daemon.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(journal, line);)
        lines.push_back(line);
    return lines;
}
inline int JournalCount(const std::string& dir, const std::string& text) {
    int count = 0;
    for (const std::string& line : JournalLines(dir))
        count += line.find(text) != std::string::npos;
    return count;
}

} // namespace daemon_test
