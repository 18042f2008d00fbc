#include "zv-file-find.h"

#include <fnmatch.h>

bool ZvFileFind::FindFirst(const char* dir, const char* pattern, ZvFindFileData& data) {
    FindClose();
    m_pattern = pattern == nullptr ? "*" : pattern;
    if (dir == nullptr)
        return false;
    m_dir = opendir(dir);
    return FindNext(data);
}

bool ZvFileFind::FindNext(ZvFindFileData& data) {
    if (m_dir == nullptr)
        return false;
    while (const dirent* entry = readdir(m_dir)) {
        if (fnmatch(m_pattern.c_str(), entry->d_name, 0) != 0)
            continue;
        data.name = entry->d_name;
        switch (entry->d_type) {
        case DT_DIR:
            data.type = ZvFindFileData::TypeDirectory;
            break;
        case DT_REG:
        case DT_LNK:
            data.type = ZvFindFileData::TypeFile;
            break;
        case DT_UNKNOWN:
            data.type = ZvFindFileData::TypeUnknown;
            break;
        default:
            data.type = ZvFindFileData::TypeOther;
            break;
        }
        return true;
    }
    return false;
}

void ZvFileFind::FindClose() {
    if (m_dir != nullptr) {
        closedir(m_dir);
        m_dir = nullptr;
    }
}
