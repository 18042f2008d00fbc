// ZvZipBase: the file functions minizip uses to reach the disk: its standard 64-bit set, with
// the open function replaced by ZvZipOpenFileFunc.
#pragma once

#include <cstdio>

#include <minizip/ioapi.h>

// Opens `fileName` for minizip: read (mode & 3 == 1) as "rb", else an existing file (bit 4) as
// "r+b", else a new file (bit 8) as "wb". Null for a null name or any other mode.
FILE* ZvZipOpenFileFunc(void* opaque, const void* fileName, int mode);

class ZvZipBase {
public:
    ZvZipBase();

protected:
    zlib_filefunc64_def m_fileFunc;
};
