#include "zv-zip.h"

#include "zv-file-util.h"
#include "zv-file.h"

namespace {

constexpr size_t kMaxEntryName = 255;

bool IsControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

} // namespace

bool ZvZipIsSafeEntryName(const ZvAString& name) {
    if (name.empty() || name.size() > kMaxEntryName || name.find("..") != ZvAString::npos ||
        name[0] == '/' || name[0] == '\\')
        return false;
    for (char c : name)
        if (IsControl(c))
            return false;
    return true;
}

ZvAString ZvZipSafeEntryName(const ZvAString& name) {
    ZvAString safe;
    for (char c : name)
        safe += IsControl(c) ? '_' : c == '\\' ? '/' : c;
    safe.erase(0, safe.find_first_not_of('/'));
    for (size_t dots; (dots = safe.find("..")) != ZvAString::npos;)
        safe.replace(dots, 2, "__");
    if (safe.size() > kMaxEntryName) {
        size_t cut = kMaxEntryName;
        // Not inside a UTF-8 character: continuation bytes are 10xxxxxx.
        while (cut > 0 && (static_cast<unsigned char>(safe[cut]) & 0xC0) == 0x80)
            --cut;
        safe.erase(cut);
    }
    return safe.empty() ? ZvAString("unnamed") : safe;
}

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
    if (!file.Open(filePath, "rb") || !OpenEntry(nameInZip != nullptr ? nameInZip : filePath))
        return false;
    bool ok = true;
    char block[kBlockSize];
    for (size_t got; ok && (got = file.Read(block, sizeof block)) > 0;)
        ok = zipWriteInFileInZip(m_zip, block, static_cast<unsigned>(got)) == ZIP_OK;
    ok = ok && !file.IsError();
    // The entry is closed even after a failure so that the zip stays readable.
    return zipCloseFileInZip(m_zip) == ZIP_OK && ok;
}

bool ZvZip::AddData(const char* nameInZip, const void* data, size_t size) {
    if (m_zip == nullptr || nameInZip == nullptr || !OpenEntry(nameInZip))
        return false;
    const char* bytes = static_cast<const char*>(data);
    bool ok = true;
    for (size_t done = 0; ok && done < size; done += kBlockSize) {
        const size_t block = size - done < kBlockSize ? size - done : kBlockSize;
        ok = zipWriteInFileInZip(m_zip, bytes + done, static_cast<unsigned>(block)) == ZIP_OK;
    }
    return zipCloseFileInZip(m_zip) == ZIP_OK && ok;
}

bool ZvZip::OpenEntry(const char* nameInZip) {
    const ZvAString name = ZvZipSafeEntryName(nameInZip);
    return zipOpenNewFileInZip(m_zip, name.c_str(), &m_fileInfo, nullptr, 0, nullptr, 0, nullptr,
                               Z_DEFLATED, Z_DEFAULT_COMPRESSION) == ZIP_OK;
}

bool ZvZip::Close() {
    if (m_zip == nullptr)
        return true;
    const bool ok = zipClose(m_zip, nullptr) == ZIP_OK;
    m_zip = nullptr;
    return ok;
}
