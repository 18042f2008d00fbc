// zavra_zom_info --pcapng read back by tshark with the ZOL dissector: packet and per-id, per-core
// counts against the tool's own summary and against a walk of the stream written here, the
// control messages by name at the host's time, and a stream through a pipe cut mid-record.
#include <map>
#include <regex>

#include "wireshark_test_tools.h"

namespace {

using wstest::Shell;
using wstest::Tshark;
using zavra_test::ReadFile;

struct Counts {
    std::map<std::pair<unsigned, unsigned>, int> perLayoutId; // (layout 1..3, id)
    std::map<unsigned, int> perKor;
    unsigned long long outside = 0; // bytes in no whole record
    int runs = 0;                   // runs of such bytes: packets of their own
    bool operator==(const Counts& o) const {
        return perLayoutId == o.perLayoutId && perKor == o.perKor && outside == o.outside &&
               runs == o.runs;
    }
};

unsigned Le(const std::string& s, size_t at, unsigned bytes) {
    unsigned value = 0;
    for (unsigned i = bytes; i-- != 0;)
        value = value << 8 | static_cast<unsigned char>(s[at + i]);
    return value;
}

// Records by their length fields. Exact for streams whose stray bytes are control bytes: those
// never take part in a sync word. Fills `ends` with where each record ends.
Counts Walk(const std::string& s, std::vector<size_t>* ends = nullptr) {
    static const std::map<unsigned, unsigned> korOfSyncB = {
        {0xFB3E98, 0}, {0xF2E05F, 0}, {0x30CF29, 1}, {0x78DAE4, 1}, {0xC426B9, 2}};
    Counts counts;
    size_t at = 0;
    bool skipping = false;
    while (at + 12 <= s.size()) {
        const unsigned sync = Le(s, at, 4), packed = Le(s, at + 10, 2);
        const size_t total = Le(s, at + 8, 2) * 4u;
        const bool a = sync == 0x807F807Fu, b = korOfSyncB.count(sync & 0xFFFFFF) != 0;
        if (!a && !b) {
            counts.runs += !skipping;
            skipping = true;
            ++counts.outside, ++at;
            continue;
        }
        if (at + total > s.size())
            break;
        ++counts.perLayoutId[{a ? 1 : 2, a ? packed & 0x1FFF : packed & 0x3FFF}];
        ++counts.perKor[a ? packed >> 15 : korOfSyncB.at(sync & 0xFFFFFF)];
        at += total;
        skipping = false;
        if (ends != nullptr)
            ends->push_back(at);
    }
    counts.outside += s.size() - at;
    counts.runs += s.size() != at;
    return counts;
}

Counts FromTshark(const std::vector<std::string>& lines) {
    Counts counts;
    for (const std::string& line : lines) {
        unsigned layout = 0, id = 0, kor = 0, skipped = 0;
        if (sscanf(line.c_str(), "%u,%x,%u", &layout, &id, &kor) == 3)
            ++counts.perLayoutId[{layout, id}], ++counts.perKor[kor];
        else if (sscanf(line.c_str(), ",,,%u", &skipped) == 1)
            counts.outside += skipped, ++counts.runs;
        else
            ADD_FAILURE() << "unexpected packet: " << line;
    }
    return counts;
}

Counts FromSummary(const std::string& text) {
    Counts counts;
    const std::regex id(R"(layout ([ABC])[^\n]* id 0x([0-9A-F]+) \(\d+\): (\d+))"),
        kor(R"(\n  KOR (\d): (\d+))"), outside(R"((skipped bytes|at the end): (\d+))"),
        run(R"(lost step after|skipped at the end|Incomplete record)");
    for (std::sregex_iterator m(text.begin(), text.end(), id), end; m != end; ++m)
        counts.perLayoutId[{(*m)[1].str()[0] - 'A' + 1u, std::stoul((*m)[2], nullptr, 16)}] =
            std::stoi((*m)[3]);
    for (std::sregex_iterator m(text.begin(), text.end(), kor), end; m != end; ++m)
        counts.perKor[std::stoul((*m)[1])] = std::stoi((*m)[2]);
    for (std::sregex_iterator m(text.begin(), text.end(), outside), end; m != end; ++m)
        counts.outside += std::stoull((*m)[2]);
    counts.runs = static_cast<int>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), run), std::sregex_iterator()));
    return counts;
}

std::string Export(const std::string& in) {
    std::string out;
    EXPECT_EQ(Shell(ZAVRA_ZOM_INFO_PATH " --pcapng '" + in + ".pcapng' '" + in + "'", out), 0);
    return in + ".pcapng";
}

TEST(WiresharkExport, CountsMatchTheSummaryAndAnIndependentWalk) {
    wstest::SimCapture sim;
    sim.Run(150000); // the last record cut short
    const std::string capture = ReadFile(sim.Zom());
    // The same capture with runs of control bytes put between records every 40 records.
    std::vector<size_t> ends;
    Walk(capture, &ends);
    std::string damaged;
    for (size_t i = 0, from = 0; i < ends.size(); from = ends[i++]) {
        damaged += capture.substr(from, ends[i] - from);
        if (i % 40 == 39)
            damaged += std::string(i % 23 + 1, static_cast<char>(i % 32));
    }
    damaged += capture.substr(ends.back());
    ASSERT_TRUE(zavra_test::WriteFile(sim.dir.File("damaged.zom"), damaged));

    for (const std::string& name : {std::string("capture.zom"), std::string("damaged.zom")}) {
        SCOPED_TRACE(name);
        const std::string file = sim.dir.File(name);
        const Counts walked = Walk(ReadFile(file));
        const std::string pcapng = Export(file);
        EXPECT_EQ(FromTshark(Tshark(sim.dir, pcapng,
                                    "-T fields -E separator=, -e zol.layout -e zol.id -e zol.kor "
                                    "-e zol.skipped")),
                  walked);
        std::string summary;
        EXPECT_EQ(Shell(ZAVRA_ZOM_INFO_PATH " '" + file + "'", summary), 0);
        EXPECT_EQ(FromSummary(summary), walked) << summary;
        // A filter on one id selects exactly that id's records, whatever their layout.
        const unsigned id = walked.perLayoutId.rbegin()->first.second;
        int expected = 0;
        for (const auto& entry : walked.perLayoutId)
            expected += entry.first.second == id ? entry.second : 0;
        EXPECT_EQ(Tshark(sim.dir, pcapng, "-Y 'zol.id == " + std::to_string(id) + "'").size(),
                  static_cast<size_t>(expected));
    }
}

TEST(WiresharkExport, ControlMessagesAreNamedAtTheHostTime) {
    wstest::SimCapture sim;
    sim.Run(4000);
    const std::string rx = ReadFile(sim.Rx());
    const size_t at = rx.find(std::string("\x07\x00\x40\x80", 4)); // OS_LOG_HOST_TIME's header end
    ASSERT_NE(at, std::string::npos);
    const unsigned long long us =
        static_cast<unsigned long long>(Le(rx, at + 4, 4)) << 32 | Le(rx, at + 8, 4);
    char time[32];
    snprintf(time, sizeof time, "%llu.%06llu000", us / 1000000, us % 1000000);
    const std::string pcapng = Export(sim.Rx());
    const std::string t(time);
    EXPECT_EQ(Tshark(sim.dir, pcapng, "-T fields -e frame.time_epoch -e zol.msg -e zol.kor"),
              std::vector<std::string>(
                  {t + "\tOS_LOG_CHANNEL_CLOSE\t0", t + "\tOS_LOG_CHANNEL_CLOSE\t1",
                   t + "\tOS_LOG_FLUSH_LOG_BUFFER\t0", t + "\tOS_LOG_FLUSH_LOG_BUFFER\t1",
                   t + "\tOS_LOG_HOST_TIME\t1", t + "\tOS_LOG_CHANNEL_OPEN\t0",
                   t + "\tOS_LOG_CHANNEL_OPEN\t1", t + "\tOS_LOG_CHANNEL_CLOSE\t0",
                   t + "\tOS_LOG_CHANNEL_CLOSE\t1"}));
    EXPECT_EQ(Tshark(sim.dir, pcapng, "-Y 'zol.id == 0x35 && zol.open.deferred == 0'").size(), 2u);
}

} // namespace
