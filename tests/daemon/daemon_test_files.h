// What the daemon leaves in its directory, read back for the tests.
#pragma once

#include <string>
#include <vector>

#include "zavra_test_files.h"

namespace daemon_test {

// A deterministic, non-repeating byte stream.
std::string MakeStream(size_t size, unsigned seed = 1);
// The regular ".zom" files of a directory by name, their total size, their contents in order.
std::vector<std::string> ZomFiles(const std::string& dir);
long long ZomBytes(const std::string& dir);
std::string ZomConcat(const std::string& dir);
// The journal's lines, and how many of them contain `text`.
std::vector<std::string> JournalLines(const std::string& dir);
int JournalCount(const std::string& dir, const std::string& text);

} // namespace daemon_test
