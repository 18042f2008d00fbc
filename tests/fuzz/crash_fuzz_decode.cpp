// Crash information decoder over arbitrary texts, as a crashed target might send them. Checks
// that a decode ends, that it succeeds exactly when it has no error text, that every file it
// lists lies directly in the output directory, and that it writes no file it does not list.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "zv-crash-decode-utils.h"
#include "zv-crash-decode.h"
#include "zv-file-util.h"

namespace {

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : abort())

// One scratch directory per process: the input text, and the output directory beside it.
struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/crash-fuzz-decode-XXXXXX";
        FUZZ_CHECK(mkdtemp(pattern) != nullptr);
        root = pattern;
        input = root + "/crash.txt";
        output = root + "/out";
        FUZZ_CHECK(ZvFileUtil::MakeDir(output.c_str()));
    }
    ~Scratch() { ZvFileUtil::DeleteDir(root.c_str(), true); }

    std::string root, input, output;
};

Scratch& GetScratch() {
    static Scratch scratch;
    return scratch;
}

bool Listed(const ZvAStringList& list, const ZvAString& path) {
    for (unsigned i = 0; i < list.Count(); ++i)
        if (list[i] == path)
            return true;
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Scratch& scratch = GetScratch();
    FILE* file = fopen(scratch.input.c_str(), "wb");
    FUZZ_CHECK(file != nullptr && (size == 0 || fwrite(data, 1, size, file) == size));
    fclose(file);

    ZvCrashDecode decode;
    const bool ok = decode.Decode(scratch.input.c_str(), scratch.output.c_str());
    FUZZ_CHECK(ok == decode.errorText.empty());

    const std::string base = scratch.output + "/";
    for (unsigned i = 0; i < decode.outputFiles.Count(); ++i) {
        const ZvAString& path = decode.outputFiles[i];
        FUZZ_CHECK(path.compare(0, base.size(), base) == 0);
        FUZZ_CHECK(ZvCrashIsPlainFileName(path.substr(base.size())));
    }
    ZvAStringList written, beside;
    ZvFileUtil::GetDirFiles(scratch.output.c_str(), written, "*", false);
    for (unsigned i = 0; i < written.Count(); ++i) {
        FUZZ_CHECK(Listed(decode.outputFiles, written[i]));
        FUZZ_CHECK(ZvFileUtil::DelFile(written[i].c_str()));
    }
    // Nothing lands beside the output directory either: only the input lives there.
    ZvFileUtil::GetDirFiles(scratch.root.c_str(), beside, "*", false);
    FUZZ_CHECK(beside.Count() == 1 && beside[0] == scratch.input);
    return 0;
}
