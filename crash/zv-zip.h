// ZvZip: writes files into a zip through minizip, deflated at zlib's default level. A zip can be
// created or, as for the target's own crash dump zip, extended with further entries.
#pragma once

#include <minizip/zip.h>

#include "zv-string-ascii.h"
#include "zv-zip-base.h"

// Entry names that every unzip program extracts where it is asked to: not empty, no "..", no
// leading "/" or "\", no control character, at most 255 bytes.
bool ZvZipIsSafeEntryName(const ZvAString& name);
// `name` made safe: control characters become "_", "\" becomes "/", leading separators go, each
// ".." becomes "__", and it is cut to 255 bytes (not inside a UTF-8 character); "unnamed" when
// nothing is left.
ZvAString ZvZipSafeEntryName(const ZvAString& name);

class ZvZip : public ZvZipBase {
public:
    ZvZip() = default;
    ~ZvZip() { Close(); }
    ZvZip(const ZvZip&) = delete;
    ZvZip& operator=(const ZvZip&) = delete;

    // Closes a zip that is open, then opens `path`: adds to the existing zip when `append`, else
    // creates a new one. True when minizip accepted the file.
    bool Open(const char* path, bool append);
    // Adds the file at `filePath` as `nameInZip` (null: the file path itself), the name made safe
    // first. True when the whole file went in.
    bool Add(const char* filePath, const char* nameInZip);
    // Adds `size` bytes of `data` as an entry named `nameInZip`, made safe likewise.
    bool AddData(const char* nameInZip, const void* data, size_t size);
    // Writes the zip's central directory and closes it; true when that succeeded or nothing was
    // open.
    bool Close();

    bool IsOpen() const { return m_zip != nullptr; }
    // The absolute path of the zip last opened.
    const ZvAString& GetPath() const { return m_path; }

private:
    static constexpr size_t kBlockSize = 4096;

    bool OpenEntry(const char* nameInZip);

    zipFile m_zip = nullptr;
    zip_fileinfo m_fileInfo = {}; // every entry without date or attributes
    ZvAString m_path;
};
