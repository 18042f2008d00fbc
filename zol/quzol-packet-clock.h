// Packet times for exported records, in microseconds since 1970.
//
// The time field of layouts A and B counts microseconds of the modem's clock (the unit of the
// host time the tool sends it): 32 bits in layout A, 40 bits in layout B, each wrapping. The
// clock follows the field from record to record, taking the shorter way round a wrap, so a
// capture may run for days. Layout C's 12-bit field is too short to place a record; such a
// record keeps the time of the packet before it. A packet never goes back before the one in
// front of it (each core keeps its own count), so Wireshark's time order is the modem's order.
//
// Where the clock stands in host time is set by an anchor: the time at which the clock's first
// record happened, or a host time found in the stream (OS_LOG_HOST_TIME), which from there on
// pins the clock to the host's clock.
#pragma once

#include "quzol-record.h"

class QoZolPacketClock {
public:
    // Packet time = base + microseconds since the clock's first record.
    void SetBase(long long baseUs) { m_base = baseUs; }
    long long GetBase() const { return m_base; }

    // The packet time of the next record in stream order.
    unsigned long long Next(const QoZolRecordTag& record);
    // The packet time of a host-time record carrying `hostUs`: from here on the clock is pinned
    // to it (a packet may go back in time here, to where the host says it is).
    unsigned long long PinToHost(long long hostUs);
    // The time of the last packet, or of the base when there has been none; for bytes outside
    // records, which carry the time of what came before them.
    unsigned long long Current() const;

    // The last packet's time less the base (0 before any packet).
    long long LastPacketElapsed() const { return m_havePacket ? m_last - m_base : 0; }
    // Microseconds from the clock's first record to the last one it followed.
    long long ClockElapsed() const { return m_elapsed; }

private:
    unsigned long long Clamp(long long t);

    long long m_base = 0;
    bool m_started = false;
    unsigned long long m_raw = 0; // the last time field seen (layouts A and B)
    long long m_elapsed = 0;      // microseconds from the first record to that one
    bool m_havePacket = false;
    long long m_last = 0;
};
