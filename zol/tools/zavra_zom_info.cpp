// zavra_zom_info <file>: prints what a capture or record file contains.
#include <cstdio>

#include "quzol-info.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "Usage: zavra_zom_info <file>\n");
        return 2;
    }
    QoZolInfoResult info;
    ZvAString error;
    if (!QoZolInfo::GetInfo(argv[1], info, nullptr, &error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    ZvAString text;
    QoZolInfo::Format(argv[1], info, text);
    fputs(text.c_str(), stdout);
    return 0;
}
