// Scratch directories and whole-file helpers for tests.
#pragma once

#include <string>

namespace zavra_test {

// A new empty directory under $TMPDIR (or /tmp), removed with its contents by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The whole content of a file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& data);
// Size in bytes, -1 when missing.
long long FileSize(const std::string& path);
inline bool FileExists(const std::string& path) {
    return FileSize(path) >= 0;
}

} // namespace zavra_test
