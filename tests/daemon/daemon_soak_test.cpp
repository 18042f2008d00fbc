// Weeks of the daemon compressed into a minute: over 1000 rotations of 1 MiB segments under a
// 16 MiB budget with a client coming and going, a restart with a smaller budget on the same
// directory, then repeated hang-ups of the port.
#include "daemon_soak.h"

using namespace daemon_test;

namespace {

// The highest of a sample field over the samples in [from, to).
template <typename Field>
long Highest(const std::vector<SoakSample>& samples, size_t from, size_t to, Field field) {
    long highest = 0;
    for (size_t i = from; i < to; ++i)
        highest = std::max(highest, static_cast<long>(field(samples[i])));
    return highest;
}

} // namespace

TEST(DaemonSoak, ThousandRotationsARestartAndHangUpsKeepTheNewestBytesInFlatResources) {
    DaemonRun run;
    // On tmpfs where this may mount one: the syncs of a thousand segments on a disk would take
    // a minute of their own and prove nothing more here.
    SmallFileSystem fs(run.store, "size=24m");
    run.options.teeFile.clear();
    run.options.gen.playFile = run.scratch.File("stream.fifo");
    PatternFeeder feeder(run.options.gen.playFile);
    run.StartModem(0);
    const SoakFigures figures = SoakFirstRun(run, "16,1", 1030 * kMiB, 0);
    printf("soak: %d segments, %.0f MiB, RSS %ld -> %ld KiB, fds %d -> %d, threads %d -> %d, "
           "journal %lld bytes (%lld per segment), %d client sessions\n",
           figures.segmentsOpened, figures.delivered / double(kMiB), figures.samples.front().rssKiB,
           figures.samples.back().rssKiB, figures.samples.front().fds, figures.samples.back().fds,
           figures.samples.front().threads, figures.samples.back().threads, figures.journalBytes,
           figures.journalBytesPerSegment, figures.clientSessions);
    ASSERT_GT(figures.segmentsOpened, 1000);
    EXPECT_LE(figures.largestStore, 16 * kMiB);
    EXPECT_GT(figures.clientSessions, 10);

    // Flat after warm-up: nothing in the second half above the first fifth's highest. RSS may
    // also hold the client's queue, bounded at 4 MiB, when a busy machine stalls the client.
    const std::vector<SoakSample>& samples = figures.samples;
    ASSERT_GE(samples.size(), 10u);
    const size_t warm = samples.size() / 5, half = samples.size() / 2;
    auto rss = [](const SoakSample& s) { return s.rssKiB; };
    auto fds = [](const SoakSample& s) { return s.fds; };
    auto threads = [](const SoakSample& s) { return s.threads; };
    EXPECT_LE(Highest(samples, half, samples.size(), rss), Highest(samples, 0, warm, rss) + 4096 + 1024);
    EXPECT_LE(Highest(samples, half, samples.size(), fds), Highest(samples, 0, warm, fds));
    EXPECT_LE(Highest(samples, half, samples.size(), threads), Highest(samples, 0, warm, threads));

    // The newest 16 segments, byte for byte the stream's tail.
    const std::vector<std::string> kept = ZomFiles(run.store);
    ASSERT_EQ(kept.size(), 16u);
    EXPECT_EQ(SegmentNumber(kept.back()), figures.segmentsOpened - 1);
    EXPECT_EQ(SegmentNumber(kept.front()), figures.segmentsOpened - 16);
    EXPECT_EQ(run.modem.Counters().discarded, 0u);
    const std::string stored = ZomConcat(run.store);
    const uint64_t sent = run.modem.Counters().sent;
    EXPECT_TRUE(stored == Pattern(sent - stored.size(), stored.size())) << "the stream's tail";

    // A restart with a smaller budget makes room from the oldest segments of the old log. The
    // first run's journal goes first: its "Port opened" would answer the wait below before the
    // new daemon has opened (and flushed) the port, and the stream's first bytes would be lost.
    unlink(run.StoreFile("daemon.log").c_str());
    zavra_test::Process restarted;
    DaemonRun::Start(restarted, {"-d" + run.modem.PortPath(), "-a" + run.store + ",8,1", "-t"});
    ASSERT_TRUE(run.WaitForJournal("ConnectThread: Port opened.", 10000));
    run.modem.Apply(zsim::Control::Rate(8 * kMiB));
    run.modem.Apply(zsim::Control::StreamOn(true));
    const uint64_t before = run.modem.Counters().sent;
    ASSERT_TRUE(run.modem.WaitUntil(zsim::SentAtLeast(before + 3 * kMiB), 10000));
    std::vector<long> oldNumbers;
    for (const std::string& name : ZomFiles(run.store))
        if (name.compare(0, 24, kept.front(), 0, 24) == 0)
            oldNumbers.push_back(SegmentNumber(name));
    ASSERT_FALSE(oldNumbers.empty());
    EXPECT_EQ(oldNumbers.back(), figures.segmentsOpened - 1) << "the newest stays";
    EXPECT_EQ(oldNumbers.back() - oldNumbers.front() + 1, static_cast<long>(oldNumbers.size()));

    // Hang-ups: each time the port comes back and logging goes on, no byte lost.
    const int hangUps = 8;
    for (int i = 1; i <= hangUps; ++i) {
        run.modem.Apply(zsim::Control::HangUp(200));
        ASSERT_TRUE(run.modem.WaitUntil(zsim::Reconnected(i), 10000)) << i;
        const uint64_t sentBefore = run.modem.Counters().sent;
        ASSERT_TRUE(run.modem.WaitUntil(zsim::SentAtLeast(sentBefore + 512 * 1024), 10000)) << i;
    }
    StopStream(run);
    restarted.Signal(SIGTERM);
    zavra_test::ExpectExit(restarted, 15, 10000);
    EXPECT_EQ(run.modem.Counters().discarded, 0u);
    EXPECT_LE(ZomBytes(run.store), 8 * kMiB);
    // Each kept file is one piece of the stream; the pieces follow in order, apart only where the
    // modem dropped what it was about to say at a hang-up.
    const zsim::ModemCounters counters = run.modem.Counters();
    uint64_t end = counters.sent + counters.dropped, gaps = 0;
    const std::vector<std::string> files = ZomFiles(run.store);
    for (size_t k = files.size(); k-- > 0;) {
        const std::string data = zavra_test::ReadFile(run.StoreFile(files[k]));
        ASSERT_GE(data.size(), 64u) << files[k];
        const uint64_t latest = end - data.size(),
                       earliest = latest - std::min<uint64_t>(latest, 1 << 16);
        const size_t found = Pattern(earliest, latest - earliest + 64).rfind(data.substr(0, 64));
        ASSERT_NE(found, std::string::npos) << files[k] << " is no piece of the stream";
        const uint64_t start = earliest + found;
        EXPECT_TRUE(data == Pattern(start, data.size())) << files[k];
        gaps += end - (start + data.size());
        end = start;
    }
    EXPECT_EQ(gaps, counters.dropped);
}
