// A stream of ZOL records turned into pcapng packets as it arrives: every record, once whole,
// becomes one packet; bytes that belong to no record (skipped while the reader hunts for the next
// sync word) become packets of their own, marked as skipped, so a damaged capture shows where.
// Records are cut by the live reader with every layout's sync word, so a stream may start in
// the middle of a record. Memory use does not grow with the stream.
#pragma once

#include <vector>

#include "quzol-packet-clock.h"
#include "quzol-pcapng.h"
#include "quzol-read-live.h"

class QoZolPcapngExport {
public:
    // Skipped bytes in one run are sent in packets of at most this size.
    static constexpr unsigned kMaxSkippedPacket = 65536;

    // `baseId` is the tool's -c value (0: 0x35); it tells which record is OS_LOG_HOST_TIME.
    // Without a writer nothing is written: the export only follows the stream and its clock, to
    // learn where a file's records lie in time before exporting them.
    QoZolPcapngExport(QoPcapngWriter* writer, unsigned baseId);
    ~QoZolPcapngExport();
    QoZolPcapngExport(const QoZolPcapngExport&) = delete;
    QoZolPcapngExport& operator=(const QoZolPcapngExport&) = delete;

    // False when the record buffer could not be allocated.
    bool IsReady() const { return m_record != nullptr; }
    QoZolPacketClock& Clock() { return m_clock; }
    // The clock's base is set to the host's time when the first record arrives (a live stream).
    void AnchorAtArrival() { m_anchorAtArrival = true; }

    // Cuts the next piece of the stream into packets (not flushed). False once the writer has
    // failed.
    bool Feed(const unsigned char* data, unsigned size);
    // The end of the stream: the skipped bytes still held, and a record cut off by the end,
    // become packets.
    bool Finish();

    unsigned long long Records() const { return m_reader.GetRecordsRead(); }
    unsigned long long SkippedBytes() const { return m_reader.GetSkipped(); }
    unsigned long long IncompleteBytes() const { return m_incomplete; }
    // The first OS_LOG_HOST_TIME of the stream: its host time, and the clock's elapsed time at it.
    bool SawHostTime() const { return m_sawHostTime; }
    long long FirstHostUs() const { return m_firstHostUs; }
    long long FirstHostClockElapsed() const { return m_firstHostElapsed; }

private:
    // Bytes of the record being assembled that the reader has taken (its header onwards).
    unsigned PartialRecordBytes() const;
    void EmitRecord();
    // Moves the stream's bytes [m_gatheredEnd, end) into the skipped bytes held.
    void GatherSkipped(unsigned long long end);
    void EmitSkipped(const unsigned char* data, unsigned size, const char* what);
    void FlushSkipped();
    // The stream's bytes from `position` on, as far as the current chunk and the carried tail
    // of the ones before it hold them.
    void CopyStream(unsigned long long position, unsigned size, unsigned char* out) const;
    bool IsHostTime(long long& hostUs) const;

    QoPcapngWriter* m_writer;
    unsigned m_hostTimeId;
    QoZolSyncCheck m_sync;
    QoZolReadLiveMem m_reader;
    QoZolRecordTag* m_record;
    QoZolLiveRecord m_live;
    QoZolPacketClock m_clock;
    bool m_anchorAtArrival = false;

    // The current chunk and, before it, the last bytes of the stream before it: bytes the
    // reader turns out to skip were read at most one header's length before the chunk.
    const unsigned char* m_chunk = nullptr;
    unsigned long long m_chunkStart = 0;
    unsigned char m_carry[kQoZolHeaderSize] = {};
    unsigned m_carrySize = 0;

    unsigned long long m_gatheredEnd = 0; // stream bytes up to here are packets or held
    std::vector<unsigned char> m_skipped; // skipped bytes held until the next record
    unsigned long long m_incomplete = 0;

    bool m_sawHostTime = false;
    long long m_firstHostUs = 0;
    long long m_firstHostElapsed = 0;
};
