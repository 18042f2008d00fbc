// The bounded send queue over a real loopback connection whose far end reads only when told to:
// whole chunks dropped when full, every byte either delivered in order or counted, one episode
// per stall.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "zavra_test_net.h"
#include "zavra_test_process.h"
#include "zv-send-queue.h"
#include "zv-socket.h"
#include "zv-time.h"

namespace {

const unsigned kChunk = 10000; // larger than the socket buffers: sent in parts
const size_t kLimit = 20 * kChunk;

// A connection with small buffers, so that a peer that does not read stalls the writer soon.
struct Link {
    int server = -1;
    ZvSocket near; // the queue's side
    int far = -1;  // the peer, a plain descriptor
    Link() {
        EXPECT_TRUE(ZvSocket::OpenSocketServer(0, server));
        listen(server, 1); // so that the connect below completes before the accept
        far = socket(AF_INET, SOCK_STREAM, 0);
        int small = 4096;
        setsockopt(far, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<uint16_t>(ZvSocket::GetLocalPort(server)));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(far, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
        EXPECT_TRUE(near.OpenServer(server, 0, 4096));
    }
    ~Link() {
        if (far >= 0)
            close(far);
        ZvSocket::CloseSocketServer(server);
    }
    // Reads what has arrived until nothing more comes for `quietMs`.
    std::string ReadUntilQuiet(int quietMs = 300) const {
        return zavra_test::ReadUntilQuiet(far, SIZE_MAX, quietMs);
    }
};

// Chunk number n: kChunk bytes that say which chunk they are, so a gap or a cut shows.
std::vector<unsigned char> Chunk(unsigned n) {
    std::vector<unsigned char> bytes(kChunk);
    for (unsigned i = 0; i < kChunk; ++i)
        bytes[i] = static_cast<unsigned char>((n * 7 + i / 4) & 0xFF);
    return bytes;
}

// Pushes chunks one by one until the writer is stuck (the peer's buffers are full), then until
// one is dropped. The chunks queued are added to `queued`; true when a drop came.
bool PushUntilDrop(ZvSendQueue& queue, unsigned& next, std::string& queued) {
    bool stuck = false;
    for (unsigned pushed = 0; pushed < 100000; ++pushed) {
        const std::vector<unsigned char> chunk = Chunk(next++);
        const ZvSendQueue::PushResult result = queue.Push(chunk.data(), kChunk);
        if (result == ZvSendQueue::kDropStarted)
            return stuck;
        EXPECT_TRUE(result == ZvSendQueue::kQueued || result == ZvSendQueue::kResumed) << result;
        queued.append(chunk.begin(), chunk.end());
        for (unsigned waited = 0; !stuck && queue.QueuedBytes() != 0; waited += 5) {
            stuck = waited >= 200;
            ZvTime::Sleep(5);
        }
    }
    ADD_FAILURE() << "nothing was ever dropped";
    return false;
}

TEST(SendQueue, AStallDropsWholeChunksAsOneEpisodeAndTheStreamStaysExactAroundIt) {
    Link link;
    ZvSendQueue queue(kLimit);
    ASSERT_TRUE(queue.Start(link.near));
    unsigned next = 0;
    std::string queued;
    // Two stalls: the second episode is counted on its own, the totals keep growing.
    for (unsigned episode = 1; episode <= 2; ++episode) {
        SCOPED_TRACE(episode);
        ASSERT_TRUE(PushUntilDrop(queue, next, queued)) << "dropped before the peer was stalled";
        EXPECT_GT(queue.QueuedBytes() + kChunk, kLimit) << "dropped while there was room";
        // Still stalled: the queue cannot drain, so every further chunk is dropped whole.
        for (unsigned i = 0; i < 9; ++i) {
            const std::vector<unsigned char> chunk = Chunk(next++);
            EXPECT_EQ(queue.Push(chunk.data(), kChunk), ZvSendQueue::kDropped);
        }
        EXPECT_EQ(queue.EpisodeChunks(), 10u);
        EXPECT_EQ(queue.EpisodeBytes(), 10u * kChunk);
        EXPECT_EQ(queue.DroppedChunks(), 10u * episode);
        EXPECT_EQ(queue.DroppedBytes(), 10u * kChunk * episode);

        // The peer reads again and the queue empties; the next chunk ends the episode.
        std::string got = link.ReadUntilQuiet();
        EXPECT_EQ(queue.QueuedBytes(), 0u);
        const std::vector<unsigned char> chunk = Chunk(next++);
        EXPECT_EQ(queue.Push(chunk.data(), kChunk), ZvSendQueue::kResumed);
        EXPECT_EQ(queue.EpisodeChunks(), 10u) << "the ended episode stays readable";
        queued.append(chunk.begin(), chunk.end());
        got += link.ReadUntilQuiet();
        ASSERT_EQ(got.size(), queued.size());
        EXPECT_TRUE(got == queued) << "the peer got exactly the chunks that were queued";
        queued.clear();
    }
    EXPECT_FALSE(queue.Stop(1000)) << "no episode open at the end";
}

// Whatever happens, every byte pushed while the peer was there either reached it or is counted.
TEST(SendQueue, StopFlushesToAReadingPeerAndCountsWhatAStalledPeerLeft) {
    for (bool reading : {true, false}) {
        SCOPED_TRACE(reading ? "reading peer" : "stalled peer");
        Link link;
        ZvSendQueue queue(kLimit);
        ASSERT_TRUE(queue.Start(link.near));
        std::atomic<bool> done{false};
        std::string got;
        std::thread reader([&] {
            while (reading && !done)
                got += link.ReadUntilQuiet(50);
        });
        // A stalled peer's buffers fill and what follows stays queued; the limit is not reached.
        unsigned next = 0;
        std::string queued;
        for (unsigned n = 0; n < 15 || (!reading && queue.QueuedBytes() == 0); ++n) {
            ASSERT_LT(n, 1000u) << "the peer's buffers never filled";
            const std::vector<unsigned char> chunk = Chunk(next++);
            ASSERT_EQ(queue.Push(chunk.data(), kChunk), ZvSendQueue::kQueued);
            queued.append(chunk.begin(), chunk.end());
            ZvTime::Sleep(reading ? 0 : 20);
        }
        const unsigned start = ZvTime::GetMsTickTime();
        EXPECT_EQ(queue.Stop(2000), !reading) << "what was left makes an episode";
        EXPECT_LT(ZvTime::DiffMsTime(start, ZvTime::GetMsTickTime()), 1500u)
            << "a peer that takes nothing is not waited for long";
        done = true;
        reader.join();
        got += link.ReadUntilQuiet();
        EXPECT_EQ(got.size() + queue.DroppedBytes(), queued.size());
        EXPECT_TRUE(queued.compare(0, got.size(), got) == 0) << "delivered in order";
        if (reading)
            EXPECT_EQ(queue.DroppedChunks(), 0u);
        else
            EXPECT_GT(queue.DroppedChunks(), 0u);
        EXPECT_EQ(queue.Push(Chunk(0).data(), kChunk), ZvSendQueue::kNotSending);
    }
}

// A peer that reads slowly keeps the queue from emptying, so its backlog runs round the end of the
// ring many times over; the peer gets exactly the chunks that were queued, in order.
TEST(SendQueue, ABacklogThatRunsRoundTheRingStaysExact) {
    Link link;
    ZvSendQueue queue(kLimit);
    ASSERT_TRUE(queue.Start(link.near));
    std::atomic<bool> done{false};
    std::string got;
    std::thread reader([&] {
        char buffer[3000];
        while (!done) {
            const ssize_t n = recv(link.far, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n > 0)
                got.append(buffer, static_cast<size_t>(n));
            ZvTime::Sleep(1);
        }
    });
    std::string queued;
    size_t queuedBehindOthers = 0;
    for (unsigned n = 0; queuedBehindOthers < 4 * kLimit; ++n) {
        ASSERT_LT(n, 20000u) << "the queue never held a backlog";
        // Sizes that do not divide the ring, so that chunks straddle its end.
        std::vector<unsigned char> chunk = Chunk(n);
        chunk.resize(3000 + n * 1237 % 4000);
        const bool behindOthers = queue.QueuedBytes() != 0;
        const ZvSendQueue::PushResult result =
            queue.Push(chunk.data(), static_cast<unsigned>(chunk.size()));
        if (result == ZvSendQueue::kQueued || result == ZvSendQueue::kResumed) {
            queued.append(chunk.begin(), chunk.end());
            queuedBehindOthers += behindOthers ? chunk.size() : 0;
        }
        ZvTime::Sleep(1);
    }
    const uint64_t droppedBeforeStop = queue.DroppedBytes();
    queue.Stop(3000);
    done = true;
    reader.join();
    got += link.ReadUntilQuiet();
    EXPECT_EQ(got.size() + (queue.DroppedBytes() - droppedBeforeStop), queued.size());
    EXPECT_TRUE(queued.compare(0, got.size(), got) == 0) << "delivered in order";
}

TEST(SendQueue, NoPeerOrAGonePeerQueuesAndCountsNothingAndAnOversizedChunkIsDropped) {
    ZvSendQueue idle(kLimit);
    EXPECT_EQ(idle.Push(Chunk(0).data(), kChunk), ZvSendQueue::kNotSending);

    Link link;
    ZvSendQueue queue(kLimit);
    ASSERT_TRUE(queue.Start(link.near));
    std::vector<unsigned char> huge(kLimit + 1, 0x55);
    EXPECT_EQ(queue.Push(huge.data(), static_cast<unsigned>(huge.size())),
              ZvSendQueue::kDropStarted);
    EXPECT_EQ(queue.DroppedBytes(), huge.size());

    // The peer goes: the writer's sends fail and the queue stops taking chunks, uncounted.
    close(link.far);
    link.far = -1;
    EXPECT_TRUE(zavra_test::WaitUntil(
        [&] { return queue.Push(Chunk(1).data(), kChunk) == ZvSendQueue::kNotSending; }, 5000, 5));
    EXPECT_FALSE(queue.IsSending());
    const uint64_t dropped = queue.DroppedChunks();
    EXPECT_EQ(queue.Push(Chunk(2).data(), kChunk), ZvSendQueue::kNotSending);
    EXPECT_EQ(queue.DroppedChunks(), dropped);
    queue.Stop();
}

} // namespace
