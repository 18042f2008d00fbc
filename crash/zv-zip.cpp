#include "zv-zip.h"

#include "zv-file-util.h"
#include "zv-file.h"

bool ZvZip::Open(const char* path, bool append) {
    Close();
    ZvFileUtil::RelativeToAbsolutePath(path, m_path, false);
    if (m_path.empty())
        return false;
    m_zip = zipOpen2_64(m_path.c_str(), append ? APPEND_STATUS_ADDINZIP : APPEND_STATUS_CREATE,
                        nullptr, &m_fileFunc);
    return m_zip != nullptr;
}

bool ZvZip::Add(const char* filePath, const char* nameInZip) {
    if (m_zip == nullptr || filePath == nullptr)
        return false;
    ZvFile file;
    if (!file.Open(filePath, "rb"))
        return false;
    if (zipOpenNewFileInZip(m_zip, nameInZip != nullptr ? nameInZip : filePath, &m_fileInfo,
                            nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                            Z_DEFAULT_COMPRESSION) != ZIP_OK)
        return false;
    bool ok = true;
    char block[kBlockSize];
    for (size_t got; ok && (got = file.Read(block, sizeof block)) > 0;)
        ok = zipWriteInFileInZip(m_zip, block, static_cast<unsigned>(got)) == ZIP_OK;
    ok = ok && !file.IsError();
    // The entry is closed even after a failure so that the zip stays readable.
    return zipCloseFileInZip(m_zip) == ZIP_OK && ok;
}

bool ZvZip::Close() {
    if (m_zip == nullptr)
        return true;
    const bool ok = zipClose(m_zip, nullptr) == ZIP_OK;
    m_zip = nullptr;
    return ok;
}
