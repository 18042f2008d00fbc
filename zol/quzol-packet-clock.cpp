#include "quzol-packet-clock.h"

unsigned long long QoZolPacketClock::Next(const QoZolRecordTag& record) {
    const unsigned format = record.GetFormat();
    if (format != QoZolFormatA && format != QoZolFormatB)
        return Current();
    const unsigned bits = format == QoZolFormatA ? 32 : 40;
    const unsigned long long mask = (1ull << bits) - 1;
    const unsigned long long raw = record.GetTime() & mask;
    if (!m_started) {
        m_started = true;
    } else {
        // The step from the last field, as the shorter way round the field's wrap.
        long long step = static_cast<long long>((raw - m_raw) & mask);
        if (step >= static_cast<long long>(1ull << (bits - 1)))
            step -= static_cast<long long>(1ull << bits);
        m_elapsed += step;
    }
    m_raw = raw;
    return Clamp(m_base + m_elapsed);
}

unsigned long long QoZolPacketClock::PinToHost(long long hostUs) {
    m_base = hostUs - m_elapsed;
    m_havePacket = true;
    m_last = hostUs;
    return static_cast<unsigned long long>(hostUs);
}

unsigned long long QoZolPacketClock::Current() const {
    return static_cast<unsigned long long>(m_havePacket ? m_last : m_base + m_elapsed);
}

unsigned long long QoZolPacketClock::Clamp(long long t) {
    if (m_havePacket && t < m_last)
        t = m_last;
    m_havePacket = true;
    m_last = t;
    return static_cast<unsigned long long>(t);
}
