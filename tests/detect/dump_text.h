// What a Dump method prints, as text.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "zv-string-ascii.h"

template <typename Dump>
ZvAString PrintedBy(Dump dump) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    dump(out);
    fclose(out);
    ZvAString text(buffer, size);
    free(buffer);
    return text;
}
