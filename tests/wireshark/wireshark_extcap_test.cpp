// The extcap program under the real tshark: the simulated modem's log port, detected through the
// real libudev in a umockdev testbed, is listed; a capture runs the tool on it, streams its
// records into tshark, and stopping it makes the tool close the modem's log channel.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "wireshark_test_tools.h"
#include "zavra_test_udev.h"

namespace {

using wstest::Shell;

// The command run where tshark finds the extcap program in `dir`. Wireshark reads its extcap
// folder from WIRESHARK_EXTCAP_DIR, except for root, whose run gets a private mount of `dir`
// over the folder instead.
std::string WithExtcapDir(const std::string& dir, const std::string& command) {
    if (geteuid() != 0)
        return "WIRESHARK_EXTCAP_DIR='" + dir + "' " + command;
    std::string folders;
    Shell("tshark -G folders 2>/dev/null | sed -n 's/^Extcap path:[[:space:]]*//p'", folders);
    folders.erase(folders.find_last_not_of('\n') + 1);
    return "unshare -m --propagation private sh -c 'mount --bind \"$1\" \"$2\" && shift 2 && "
           "exec \"$@\"' sh '" +
           dir + "' '" + folders + "' " + command;
}

TEST(WiresharkExtcap, ListsTheLogPortAndCapturesUntilStopped) {
    wstest::SimCapture sim;
    sim.options.dir = sim.dir.Path();
    sim.options.rxFile = sim.Rx();
    sim.options.crash.atPort = true;
    sim.options.gen.bytesPerSecond = 100000;
    ASSERT_TRUE(sim.modem.Start(sim.options)) << sim.modem.Error();
    const std::string description = sim.dir.File("modem.umockdev");
    ASSERT_TRUE(
        zavra_test::WriteUsbModem(description, {sim.modem.AtPortPath(), sim.modem.PortPath()}));
    const std::string extcap = sim.dir.File("extcap");
    ASSERT_EQ(mkdir(extcap.c_str(), 0755), 0);
    ASSERT_EQ(symlink(ZAVRA_EXTCAP_PATH, (extcap + "/zavra_extcap").c_str()), 0);
    // The tool through PATH, crash bundles in HOME; umockdev's library ahead of a sanitizer's.
    const std::string tool = ZAVRA_LOG_SERIAL_PATH;
    setenv("PATH", (tool.substr(0, tool.rfind('/')) + ":" + getenv("PATH")).c_str(), 1);
    setenv("HOME", sim.dir.Path().c_str(), 1);
    const char* asan = getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":verify_asan_link_order=0").c_str(),
           1);
    const std::string testbed = "umockdev-run -d '" + description + "' -- ";

    std::string out;
    EXPECT_EQ(Shell(WithExtcapDir(extcap, testbed + "tshark -D 2>/dev/null"), out), 0);
    EXPECT_TRUE(zavra_test::Contains(out, "zavra-modem-log (Modem log on " + sim.modem.PortPath() +
                                              " (Zavra ZM200 Modem"));
    EXPECT_TRUE(zavra_test::Contains(out, "zavra (Modem log (zavra_log_serial"));

    const std::string pcapng = sim.dir.File("live.pcapng");
    EXPECT_EQ(Shell(WithExtcapDir(extcap, testbed + "tshark -i zavra-modem-log -a duration:2 -w '" +
                                              pcapng + "' 2>&1"),
                    out),
              0)
        << out;
    // The tool's own stop: the channel closed to both cores after it was opened.
    EXPECT_TRUE(zavra_test::WaitUntil(
        [&] {
            const std::vector<zsim::HostRecord> records = sim.modem.Records();
            return records.size() >= 2 && records.back().id == 0x36 &&
                   records[records.size() - 2].id == 0x36 &&
                   sim.modem.RecordsWithId(0x35).size() == 2;
        },
        5000));
    // The dissector found in the personal Lua folder, the link type naming it: no set-up.
    const std::string lua = sim.dir.Path() + "/.local/lib/wireshark/plugins";
    ASSERT_EQ(system(("mkdir -p '" + lua + "' && ln -s " ZAVRA_LUA_PATH " '" + lua + "'").c_str()),
              0);
    const std::vector<std::string> packets =
        wstest::Tshark(sim.dir, pcapng, "-T fields -e zol.id -e zol.skipped", false);
    EXPECT_GT(packets.size(), 100u);
    for (const std::string& packet : packets)
        ASSERT_EQ(packet.substr(0, 2), "0x") << "a packet that is no whole record";
    // The FIFO the tool wrote to is gone from the crash folder.
    DIR* home = opendir(sim.dir.Path().c_str());
    for (struct dirent* entry; (entry = readdir(home)) != nullptr;)
        EXPECT_NE(std::string(entry->d_name).rfind("zavra_log_", 0), 0u) << entry->d_name;
    closedir(home);
}

} // namespace
