#include "zv-zip-base.h"

#include "zv-file.h"

namespace {

// minizip's table holds a function returning its untyped handle.
voidpf ZCALLBACK OpenForMinizip(voidpf opaque, const void* fileName, int mode) {
    return ZvZipOpenFileFunc(opaque, fileName, mode);
}

} // namespace

FILE* ZvZipOpenFileFunc(void* /*opaque*/, const void* fileName, int mode) {
    if (fileName == nullptr)
        return nullptr;
    const char* openMode = nullptr;
    if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) == ZLIB_FILEFUNC_MODE_READ)
        openMode = "rb";
    else if (mode & ZLIB_FILEFUNC_MODE_EXISTING)
        openMode = "r+b";
    else if (mode & ZLIB_FILEFUNC_MODE_CREATE)
        openMode = "wb";
    else
        return nullptr;
    return ZvFile::Fopen(static_cast<const char*>(fileName), openMode);
}

ZvZipBase::ZvZipBase() {
    fill_fopen64_filefunc(&m_fileFunc);
    m_fileFunc.zopen64_file = OpenForMinizip;
}
