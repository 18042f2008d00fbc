// The pcapng export under random input cut into random chunks: the output must be whole pcapng
// blocks, the packets' payloads back to back must give the input byte for byte, and the output
// must not depend on where the chunks were cut. Takes the live reader fuzzer's inputs as they are.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "quzol-pcapng-export.h"

namespace {

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : abort())

unsigned Word(const std::vector<unsigned char>& out, size_t at) {
    FUZZ_CHECK(at + 4 <= out.size());
    return QoZolGetWord(out.data() + at);
}

std::vector<unsigned char> Export(const uint8_t* data, size_t size, unsigned cut) {
    const int fd = memfd_create("pcapng", 0);
    FUZZ_CHECK(fd >= 0);
    {
        QoPcapngWriter writer(fd);
        QoZolPcapngExport exporter(&writer, 0);
        exporter.Clock().SetBase(0);
        FUZZ_CHECK(writer.WriteHeader("fuzz"));
        for (size_t at = 0; at < size; at += cut)
            FUZZ_CHECK(
                exporter.Feed(data + at, static_cast<unsigned>(size - at < cut ? size - at : cut)));
        FUZZ_CHECK(exporter.Finish() && writer.Flush());
    }
    std::vector<unsigned char> out(static_cast<size_t>(lseek(fd, 0, SEEK_END)));
    FUZZ_CHECK(pread(fd, out.data(), out.size(), 0) == static_cast<ssize_t>(out.size()));
    close(fd);
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const unsigned cut = size != 0 ? data[0] % 29 + 1 : 1;
    const std::vector<unsigned char> once = Export(data, size, size != 0 ? size : 1);
    FUZZ_CHECK(Export(data, size, cut) == once);
    // Section header, interface, then packets: each payload after its dissector-name tags.
    std::vector<unsigned char> payloads;
    size_t at = Word(once, 4) + Word(once, Word(once, 4) + 4);
    while (at < once.size()) {
        const unsigned length = Word(once, at + 4);
        FUZZ_CHECK(Word(once, at) == 6 && length % 4 == 0 && Word(once, at + length - 4) == length);
        const unsigned captured = Word(once, at + 20);
        const unsigned tags = 4 + once[at + 31] + 4;
        FUZZ_CHECK(tags <= captured && 28 + captured <= length);
        payloads.insert(payloads.end(), once.begin() + at + 28 + tags,
                        once.begin() + at + 28 + captured);
        at += length;
    }
    FUZZ_CHECK(at == once.size());
    FUZZ_CHECK(payloads.size() == size && (size == 0 || memcmp(payloads.data(), data, size) == 0));
    return 0;
}
