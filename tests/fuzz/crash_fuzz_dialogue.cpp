// The whole way from the AT dialogue to the crash bundle, with the fuzzer playing a crashed
// target: the input is its replies to the retrieval's commands, one after the other, and the
// bundle is then made from what was retrieved. Checks that the retrieval keeps to its room on
// disk, that nothing is written outside the output directory or left in the temporary one, and
// that every zip made is whole and holds only safe names.
//
// Input: one byte choosing the read size and the room, then the replies, separated by two bytes
// 0x1E; a command past the last reply meets silence.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zv-at-port-util.h"
#include "zv-at-port.h"
#include "zv-crash-decode-zip.h"
#include "zv-file-util.h"
#include "zv-zip-read.h"
#include "zv-zip.h"

namespace {

#define FUZZ_CHECK(cond) ((cond) ? (void)0 : abort())

const char kSeparator[] = "\x1e\x1e";
const unsigned kReadSizes[] = {1, 7, 64, 4096, 50000};
const unsigned long long kRooms[] = {0, 150, 4096, 1 << 20};

// A target that answers each command with the next reply, in reads of at most `readSize`.
class PlayedTarget : public ZvAtPort {
public:
    PlayedTarget(std::vector<std::string> replies, unsigned readSize)
        : ZvAtPort(0), m_replies(std::move(replies)), m_readSize(readSize) {}

    bool OnOpen(unsigned) override { return m_open = true; }
    void OnClose() override { m_open = false; }
    bool OnIsOpen() override { return m_open; }
    bool OnPortWrite(const unsigned char* data, unsigned length) override {
        const std::string command(reinterpret_cast<const char*>(data), length);
        m_reply = m_next < m_replies.size() ? m_replies[m_next++] : "";
        // A query always gets a line: an empty reply would only add the retrieval's retry pauses.
        if (m_reply.empty() && (command == "at%debug=?\r" || command == "at%mode?\r"))
            m_reply = "\r\n";
        m_at = 0;
        return true;
    }
    bool OnPortReadAll(ZvAString& text) override { return ReadUntilSilent(text); }
    bool OnPortRead(unsigned char* buffer, unsigned size, unsigned& received) override {
        received =
            static_cast<unsigned>(std::min<size_t>({size, m_readSize, m_reply.size() - m_at}));
        m_reply.copy(reinterpret_cast<char*>(buffer), received, m_at);
        m_at += received;
        return true;
    }

private:
    std::vector<std::string> m_replies;
    unsigned m_readSize;
    bool m_open = false;
    size_t m_next = 0;
    std::string m_reply;
    size_t m_at = 0;
};

// One scratch directory per process: the retrieval's temporary folder and the output folder.
struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/crash-fuzz-dialogue-XXXXXX";
        FUZZ_CHECK(mkdtemp(pattern) != nullptr);
        root = pattern;
        work = root + "/work";
        out = root + "/out";
        FUZZ_CHECK(ZvFileUtil::MakeDir(work.c_str()) && ZvFileUtil::MakeDir(out.c_str()));
        ZvFileUtil::SetWritableDir(work.c_str());
    }
    ~Scratch() { ZvFileUtil::DeleteDir(root.c_str(), true); }

    std::string root, work, out;
};

Scratch& GetScratch() {
    static Scratch scratch;
    return scratch;
}

std::vector<std::string> Replies(const std::string& text) {
    std::vector<std::string> replies;
    size_t start = 0;
    for (size_t at; (at = text.find(kSeparator, start)) != std::string::npos; start = at + 2)
        replies.push_back(text.substr(start, at - start));
    replies.push_back(text.substr(start));
    return replies;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const Scratch& scratch = GetScratch();
    const unsigned choice = data[0];
    PlayedTarget target(Replies(std::string(reinterpret_cast<const char*>(data) + 1, size - 1)),
                        kReadSizes[choice % 5]);
    ZvAtCrash crash;
    crash.diskLimit = kRooms[(choice / 5) % 4];
    ZvAtCrash::Response response;
    FUZZ_CHECK(target.Open());
    crash.RetrieveCrash(target, response);

    // Kept to its room, and no empty or vanished file named.
    long long total = 0;
    for (const ZvAString* path :
         {&response.coreDumpFile, &response.crashInfoFile, &response.crashLogFile}) {
        const long long bytes = path->empty() ? 0 : ZvFileUtil::GetFileSize(path->c_str());
        FUZZ_CHECK(path->empty() || bytes > 0);
        total += bytes;
    }
    FUZZ_CHECK(crash.diskLimit == 0 || total <= static_cast<long long>(crash.diskLimit));

    ZvAStringList files, left, made;
    ZvAString error;
    ZvCrashDecodeZip(response, scratch.out.c_str(), files, &error, true);
    // Everything went to the output folder, flat, and nothing stayed behind.
    ZvFileUtil::GetDirFiles(scratch.work.c_str(), left, "*", true);
    ZvFileUtil::GetDirFiles(scratch.root.c_str(), left, "*", false);
    FUZZ_CHECK(left.Count() == 0);
    ZvFileUtil::GetDirFiles(scratch.out.c_str(), made, "*", true);
    for (unsigned i = 0; i < made.Count(); ++i)
        FUZZ_CHECK(made[i].rfind('/') == scratch.out.size());
    // The crash zip made, if any, can be read whole and holds only safe names.
    for (unsigned i = 0; i < files.Count(); ++i)
        FUZZ_CHECK(ZvFileUtil::DirExists(files[i].c_str()) &&
                   (!files[i].EndsWith(".zip") ||
                    ZvZipReadEntries(files[i].c_str(), [](const ZvAString& name, const ZvAString&) {
                        FUZZ_CHECK(ZvZipIsSafeEntryName(name));
                        return true;
                    })));
    ZvFileUtil::DeleteDir(scratch.out.c_str(), true);
    FUZZ_CHECK(ZvFileUtil::MakeDir(scratch.out.c_str()));
    return 0;
}
