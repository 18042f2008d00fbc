// ZvFileFind: a directory enumeration filtered by a shell wildcard.
#pragma once

#include <dirent.h>

#include "zv-string-ascii.h"

struct ZvFindFileData {
    enum Type { TypeUnknown = 0, TypeFile = 1, TypeDirectory = 2, TypeOther = 3 };

    ZvAString name; // without directory
    int type = TypeUnknown;
};

class ZvFileFind {
public:
    ZvFileFind() = default;
    ~ZvFileFind() { FindClose(); }
    ZvFileFind(const ZvFileFind&) = delete;
    ZvFileFind& operator=(const ZvFileFind&) = delete;

    // Starts a search of `dir` for names matching the shell wildcard `pattern` (no flags: '*'
    // also matches a leading dot, so "." and ".." match "*"). False when nothing matches.
    bool FindFirst(const char* dir, const char* pattern, ZvFindFileData& data);
    bool FindNext(ZvFindFileData& data);
    void FindClose();

private:
    DIR* m_dir = nullptr;
    ZvAString m_pattern;
};
