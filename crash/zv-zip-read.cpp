#include "zv-zip-read.h"

#include <minizip/unzip.h>

#include <vector>

namespace {

constexpr unsigned kBlockSize = 64 * 1024;

// The current entry of `zip` read whole into `data`; false on a damaged entry (its checksum
// included, which minizip checks when the entry is closed after its last byte).
bool ReadCurrent(unzFile zip, unsigned long long maxEntry, ZvAString& data) {
    if (unzOpenCurrentFile(zip) != UNZ_OK)
        return false;
    data.clear();
    std::vector<char> block(kBlockSize);
    int got;
    while ((got = unzReadCurrentFile(zip, block.data(), kBlockSize)) > 0) {
        if (data.size() + static_cast<size_t>(got) > maxEntry) {
            got = -1;
            break;
        }
        data.append(block.data(), static_cast<size_t>(got));
    }
    return unzCloseCurrentFile(zip) == UNZ_OK && got == 0;
}

} // namespace

bool ZvZipReadEntries(
    const char* path,
    const std::function<bool(const ZvAString& name, const ZvAString& data)>& onEntry,
    unsigned long long maxEntry) {
    unzFile zip = path != nullptr ? unzOpen64(path) : nullptr;
    if (zip == nullptr)
        return false;
    bool sound = true;
    int step = unzGoToFirstFile(zip);
    ZvAString data;
    while (sound && step == UNZ_OK) {
        unz_file_info64 info;
        char name[65536];
        sound = unzGetCurrentFileInfo64(zip, &info, name, sizeof(name), nullptr, 0, nullptr, 0) ==
                    UNZ_OK &&
                ReadCurrent(zip, maxEntry, data);
        if (sound && !onEntry(ZvAString(name, info.size_filename < sizeof(name) ? info.size_filename
                                                                                : sizeof(name) - 1),
                              data))
            break;
        step = unzGoToNextFile(zip);
    }
    sound = sound && (step == UNZ_OK || step == UNZ_END_OF_LIST_OF_FILE);
    return unzClose(zip) == UNZ_OK && sound;
}
