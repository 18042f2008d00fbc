// The whole simulated modem behind its port. Streaming, rates and the database server are exercised
// end to end by the tool's own tests; here what only the simulator's users rely on.
#include "zsim-modem.h"

#include <gtest/gtest.h>

#include "sim_host.h"
#include "zavra_test_files.h"

using namespace zsim;

TEST(SimModem, FailsAfterNBytesDrainsAndComesBackAtTheSamePath) {
    zavra_test::TempDir dir;
    ModemOptions options;
    options.dir = dir.Path();
    options.gen.flowWithoutOpen = true;
    options.fail.afterBytes = 30000;
    options.fail.downMs = 100;
    Modem modem;
    ASSERT_TRUE(modem.Start(options)) << modem.Error();
    {
        SimHost host(modem.PortPath());
        bool hungUp = false;
        Bytes got = host.Read(SIZE_MAX, 2000, &hungUp);
        EXPECT_TRUE(hungUp);
        EXPECT_EQ(got.size(), 30000u); // everything written before the hang-up was read
    }
    ASSERT_TRUE(modem.WaitUntil(zsim::Reconnected(1), 3000));
    {
        SimHost again(modem.PortPath());
        ASSERT_GE(again.fd, 0);
        EXPECT_EQ(again.Read(10).size(), 10u); // the generator goes on at the new port
    }
    modem.Stop();
    ModemCounters counters = modem.Counters();
    EXPECT_EQ(counters.hangUps, 2u);
    EXPECT_EQ(counters.delivered + counters.discarded, counters.sent);
}
