// The daemon left beside a modem for a long time (default one hour): 1 MiB segments under a
// 16 MiB budget on this machine's disk, a modem sending at a steady rate, a TCP client connecting
// and leaving all along. Prints the figures that tell whether it could run for weeks: rotations,
// data, resident memory, descriptors and threads from start to end, journal bytes per rotation.
//
//   bench_soak [minutes=60] [MB/s=4]
#include <cstdlib>

#include "daemon_soak.h"

using namespace daemon_test;

int main(int argc, char** argv) {
    const double minutes = argc > 1 ? atof(argv[1]) : 60;
    const double rate = argc > 2 ? atof(argv[2]) : 4;
    if (minutes <= 0 || rate <= 0) {
        fprintf(stderr, "usage: bench_soak [minutes=60] [MB/s=4]\n");
        return 2;
    }
    DaemonRun run;
    run.options.teeFile.clear(); // an hour of it would fill the disk
    run.StartModem(0, static_cast<uint64_t>(rate * 1e6));
    printf("soak: %.1f min at %.1f MB/s, 1 MiB segments under 16 MiB, a client coming and going\n",
           minutes, rate);
    fflush(stdout);
    const SoakFigures figures = SoakFirstRun(run, "16,1", 0, minutes * 60);

    const SoakSample& first = figures.samples.front();
    const SoakSample& last = figures.samples.back();
    long highestRss = 0;
    for (const SoakSample& sample : figures.samples)
        highestRss = std::max(highestRss, sample.rssKiB);
    const long long journal =
        figures.journalBytes + std::max(0LL, zavra_test::FileSize(run.StoreFile("daemon.log.1")));
    const int rotations = std::max(1, figures.segmentsOpened - 1);
    printf("rotations %d, data %.0f MiB, largest directory %.1f MiB, client sessions %d\n",
           rotations, figures.delivered / double(kMiB), figures.largestStore / double(kMiB),
           figures.clientSessions);
    printf("RSS %ld KiB at start, %ld KiB at end, %ld KiB at most\n", first.rssKiB, last.rssKiB,
           highestRss);
    printf("descriptors %d -> %d, threads %d -> %d\n", first.fds, last.fds, first.threads,
           last.threads);
    printf("journal %lld bytes kept (daemon.log and daemon.log.1); about %lld bytes per rotation "
           "while it grew\n",
           journal, figures.journalBytesPerSegment);
    return ::testing::Test::HasFailure() ? 1 : 0;
}
