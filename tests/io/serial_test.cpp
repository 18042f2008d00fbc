// The serial port and the asynchronous serial interface on real pseudo-terminals.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "zavra_test_process.h"
#include "zv-itf-serial.h"
#include "zv-serial.h"
#include "zv-time.h"

using zavra_test::WaitUntil;

namespace {

// Only the master stays open here: the port takes the terminal exclusively, and a slave
// descriptor held by the test would keep that exclusion across the port's re-open.
struct Pty {
    int master = -1;
    char name[128] = "";
    Pty() {
        int slave = -1;
        EXPECT_EQ(0, openpty(&master, &slave, name, nullptr, nullptr));
        close(slave);
    }
    ~Pty() { close(master); }
    void WriteAll(const unsigned char* data, size_t size) const {
        while (size > 0) {
            const ssize_t n = write(master, data, size);
            ASSERT_GT(n, 0);
            data += n;
            size -= static_cast<size_t>(n);
        }
    }
};

// The byte at position i of the test streams.
unsigned char Flow(size_t i) {
    return static_cast<unsigned char>(i * 7 + i / 256);
}

struct Recorder : ZvItfAsyncRxHandlers {
    std::vector<unsigned char> bytes; // written by the read thread only; `got` publishes it
    std::atomic<size_t> got{0};
    std::atomic<int> entered{0}, blocks{0}, fails{0};
    ZvItfAsyncSerial* closeFromHandler = nullptr;
    std::atomic<bool> closeReturned{false};
    int blockOnFd = -1; // a handler that never returns

    void OnRxData(unsigned count, unsigned char* data) override {
        ++entered;
        char never;
        if (blockOnFd >= 0)
            (void)!read(blockOnFd, &never, 1);
        bytes.insert(bytes.end(), data, data + count);
        got += count;
        ++blocks;
        if (closeFromHandler != nullptr) {
            closeFromHandler->OnClose();
            closeReturned = true;
        }
    }
    void OnRxFail() override { ++fails; }
};

class ItfSerial : public ::testing::Test {
protected:
    void SetUp() override {
        itf.SetRxHandler(&recorder);
        itf.SetPortName(pty.name);
    }
    Pty pty;
    Recorder recorder;
    ZvItfAsyncSerial itf; // last, so it closes first
};

} // namespace

static termios Settings(const ZvSerial& port) {
    termios t{};
    EXPECT_EQ(0, tcgetattr(port.GetHandle(), &t));
    return t;
}

// The bytes themselves (no translation, no flow control) are checked by the delivery test below.
// The terminal's settings as another program finds them (a fresh pty is cooked).
static termios SettingsOf(const char* name) {
    termios t{};
    const int fd = open(name, O_RDWR | O_NOCTTY);
    EXPECT_EQ(0, tcgetattr(fd, &t));
    close(fd);
    return t;
}

static bool SameSettings(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag &&
           a.c_lflag == b.c_lflag && memcmp(a.c_cc, b.c_cc, sizeof a.c_cc) == 0 &&
           cfgetispeed(&a) == cfgetispeed(&b) && cfgetospeed(&a) == cfgetospeed(&b);
}

TEST(Serial, RawExclusiveSettingsGivenBackAtClose) {
    Pty pty;
    const termios before = SettingsOf(pty.name);
    ZvSerial port;
    ASSERT_TRUE(port.Open(pty.name, 115200, 5));
    termios t = Settings(port);
    int lines = 0;
    EXPECT_FALSE(port.GetModemLines(lines)) << "a pty has no modem lines";
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | CREAD | CLOCAL),
              t.c_cflag & (CSIZE | CREAD | CLOCAL | CSTOPB | PARENB | PARODD | CRTSCTS));
    EXPECT_EQ(0, t.c_cc[VMIN]);
    int exclusive = 0;
    ASSERT_EQ(0, ioctl(port.GetHandle(), TIOCGEXCL, &exclusive));
    EXPECT_NE(0, exclusive);

    // Re-opened with hardware flow control at another speed.
    ASSERT_TRUE(port.Open(pty.name, 4000000, ZvSerial::kFlagHardwareFlowControl));
    t = Settings(port);
    EXPECT_EQ(B4000000, cfgetospeed(&t));
    EXPECT_NE(0u, t.c_cflag & CRTSCTS);
    EXPECT_FALSE(port.Open(pty.name, 12345, 0));

    // Closing gave the exclusion up, so anyone may open the terminal again, and finds it as it
    // was before (a `cat` would otherwise inherit VMIN 0 and VTIME 2 and end at the first pause).
    EXPECT_TRUE(SameSettings(before, SettingsOf(pty.name)));
    const int again = open(pty.name, O_RDWR | O_NOCTTY);
    ASSERT_GE(again, 0);
    EXPECT_EQ(0, ioctl(again, TIOCGEXCL, &exclusive));
    EXPECT_EQ(0, exclusive);
    close(again);
}

TEST_F(ItfSerial, DeliversEveryByteSendsUnchangedAndFailsOnceOnHangUp) {
    ASSERT_TRUE(itf.OnOpen());
    // Every byte value, including the ones a cooked terminal would swallow or translate, in a
    // burst of many read blocks that the reader takes one after the other without waiting.
    std::vector<unsigned char> sent(1 << 20);
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = Flow(i);
    pty.WriteAll(sent.data(), sent.size());
    ASSERT_TRUE(WaitUntil([&] { return recorder.got >= sent.size(); }, 10000, 2));
    ZvTime::Sleep(500); // idle reads time out every 200 ms: no failure, no stray bytes
    EXPECT_TRUE(itf.IsReading());
    EXPECT_EQ(0, recorder.fails.load());
    EXPECT_TRUE(recorder.bytes == sent);
    EXPECT_EQ(sent.size(), itf.GetBytesReceived());

    unsigned char out[] = {'a', '\n', 0x00, 0x11, 0x13, 0xff};
    EXPECT_TRUE(itf.Send(sizeof(out), out));
    unsigned char back[16];
    ASSERT_EQ(static_cast<ssize_t>(sizeof(out)), read(pty.master, back, sizeof(back)));
    EXPECT_EQ(0, memcmp(out, back, sizeof(out)));

    // More than the terminal holds goes out whole: the send waits for room as the far end reads.
    std::vector<unsigned char> big(sent.begin(), sent.begin() + (256 << 10));
    std::atomic<bool> sentWhole{false};
    std::thread sender(
        [&] { sentWhole = itf.Send(static_cast<unsigned>(big.size()), big.data()); });
    ZvTime::Sleep(100);
    std::vector<unsigned char> arrived(big.size());
    for (size_t at = 0; at < arrived.size();) {
        pollfd in = {pty.master, POLLIN, 0};
        const ssize_t n = poll(&in, 1, 5000) == 1
                              ? read(pty.master, arrived.data() + at, arrived.size() - at)
                              : 0;
        if (n <= 0) {
            ADD_FAILURE() << "the send stopped after " << at << " bytes";
            break;
        }
        at += static_cast<size_t>(n);
    }
    sender.join();
    EXPECT_TRUE(sentWhole.load());
    EXPECT_TRUE(arrived == big);

    // Drained, then hung up: one failure, however long the reader is left alone.
    close(pty.master);
    pty.master = -1;
    ASSERT_TRUE(WaitUntil([&] { return recorder.fails.load() > 0; }, 3000, 2));
    ZvTime::Sleep(300);
    EXPECT_EQ(1, recorder.fails.load());
    EXPECT_TRUE(itf.IsOpen()); // failed, not yet closed
    itf.OnClose();
    EXPECT_FALSE(itf.Send(sizeof(out), out));
}

TEST_F(ItfSerial, CloseFromOwnerAndFromHandlerAndFastEmptyReads) {
    itf.SetRxHandler(nullptr);
    itf.OnClose();              // never opened: nothing happens
    EXPECT_FALSE(itf.OnOpen()); // no handler
    itf.SetPortName("/nonexistent/tty");
    itf.SetRxHandler(&recorder);
    EXPECT_FALSE(itf.OnOpen());
    EXPECT_EQ(ENOENT, itf.GetLastError());

    // An idle reader is woken at once, long before its 5 s wait ends.
    itf.SetPortName(pty.name);
    itf.SetTotalTimeout(5000);
    ASSERT_TRUE(itf.OnOpen());
    ZvTime::Sleep(30);
    unsigned start = ZvTime::GetMsTickTime();
    itf.OnClose();
    EXPECT_LT(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 1000u);

    // OnClose from inside the handler must not wait for (or terminate) its own thread.
    recorder.closeFromHandler = &itf;
    ASSERT_TRUE(itf.OnOpen());
    std::vector<unsigned char> block(1000, 0x42);
    pty.WriteAll(block.data(), 1);
    ASSERT_TRUE(WaitUntil([&] { return recorder.closeReturned.load(); }, 2000, 2));
    EXPECT_FALSE(itf.IsReading());
    recorder.closeFromHandler = nullptr;

    // Closing while the port is flooded: the reader, which does not wait between blocks then,
    // still stops at once and keeps every block it took, in order.
    recorder.bytes.clear();
    recorder.got = 0;
    ASSERT_TRUE(itf.OnOpen());
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        fcntl(pty.master, F_SETFL, fcntl(pty.master, F_GETFL) | O_NONBLOCK);
        std::vector<unsigned char> chunk(4096);
        for (size_t next = 0; flooding;) {
            for (size_t i = 0; i < chunk.size(); ++i)
                chunk[i] = Flow(next + i);
            const ssize_t n = write(pty.master, chunk.data(), chunk.size());
            next += n > 0 ? static_cast<size_t>(n) : 0;
        }
        fcntl(pty.master, F_SETFL, fcntl(pty.master, F_GETFL) & ~O_NONBLOCK);
    });
    ASSERT_TRUE(WaitUntil([&] { return recorder.got.load() > (256u << 10); }, 5000, 2));
    start = ZvTime::GetMsTickTime();
    itf.OnClose();
    EXPECT_LT(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 1000u);
    flooding = false;
    flood.join();
    EXPECT_EQ(0u, itf.GetReadThreadTerminations());
    EXPECT_EQ(recorder.got.load(), recorder.bytes.size());
    size_t firstWrong = 0;
    while (firstWrong < recorder.bytes.size() && recorder.bytes[firstWrong] == Flow(firstWrong))
        ++firstWrong;
    EXPECT_EQ(recorder.bytes.size(), firstWrong) << "a byte out of order";

    // A send stuck on a far end that reads nothing gives up when the port is closed.
    ASSERT_TRUE(itf.OnOpen());
    std::vector<unsigned char> big(1 << 20, 0x5a);
    std::atomic<int> sendResult{-1};
    std::thread sender(
        [&] { sendResult = itf.Send(static_cast<unsigned>(big.size()), big.data()); });
    ZvTime::Sleep(100);
    EXPECT_EQ(-1, sendResult.load()) << "the send should be waiting for room";
    itf.OnClose();
    EXPECT_TRUE(WaitUntil([&] { return sendResult.load() != -1; }, 1000, 2));
    sender.join();
    EXPECT_EQ(0, sendResult.load());
    tcflush(pty.master, TCIOFLUSH);

    // Last resort: a handler that never returns is terminated after the wait.
    int stuck[2];
    ASSERT_EQ(0, pipe(stuck));
    recorder.blockOnFd = stuck[0];
    ASSERT_TRUE(itf.OnOpen());
    pty.WriteAll(block.data(), 1);
    ASSERT_TRUE(
        WaitUntil([&] { return recorder.entered.load() > recorder.blocks.load(); }, 2000, 2));
    start = ZvTime::GetMsTickTime();
    itf.OnClose();
    EXPECT_LT(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 2000u);
    EXPECT_EQ(1u, itf.GetReadThreadTerminations());
    EXPECT_EQ(0, recorder.fails.load());
    close(stuck[0]);
    close(stuck[1]);

    // 99 ms gives VTIME 0: reads come back empty at once, as from a vanished device.
    itf.SetTotalTimeout(99);
    ASSERT_TRUE(itf.OnOpen());
    ASSERT_TRUE(WaitUntil([&] { return recorder.fails.load() > 0; }, 2000, 2));
    ZvTime::Sleep(100);
    EXPECT_EQ(1, recorder.fails.load());
}
