// ZluSendMessages: builds the four OS_LOG control messages that steer the target's logging and
// hands each finished message to SendMsg, which a subclass binds to the port.
//
// Every message is a legacy-layout ZOL record with time 0, addressed to KOR 0 and/or KOR 1:
//   OS_LOG_CHANNEL_OPEN      KOR 0 then KOR 1, body: u32 mode, u32 threshold %, u32 timeout s
//   OS_LOG_CHANNEL_CLOSE     KOR 0 then KOR 1, no body
//   OS_LOG_FLUSH_LOG_BUFFER  KOR 0 then KOR 1, no body
//   OS_LOG_HOST_TIME         KOR 1 only, body: us since the epoch, us since midnight, each 64-bit
//                            value as two little-endian 32-bit words, HIGH word first.
#pragma once

#include <initializer_list>

class ZluSendMessages {
public:
    ZluSendMessages() = default;

    // Delivers one complete message of `size` bytes; `kor` is the processor it is addressed to
    // (already encoded in the bytes).
    virtual void SendMsg(unsigned kor, unsigned char* data, unsigned size) = 0;

    // Sets the four ids from the base id (0 means the default 0x35): open b, close b+1,
    // flush b+6, host time b+11. Returns the open-channel id.
    unsigned SetOpenChannelId(unsigned base);
    // Deferred-logging settings carried by OS_LOG_CHANNEL_OPEN (mode 0 off, 1 on).
    void SetDeferredLogging(unsigned char mode, unsigned threshold, unsigned timeout);

    void SendOpenChannel();
    void SendCloseChannel();
    void SendFlushBuffer();
    // Reads the host clock once (epoch first, then midnight) and sends the time to KOR 1.
    void SendHostTime();
    // The same with given times.
    void SendHostTime(unsigned long long usSinceEpoch, unsigned long long usSinceMidnight);

    unsigned GetOpenChannelId() const { return m_openChannelId; }
    unsigned GetCloseChannelId() const { return m_closeChannelId; }
    unsigned GetFlushId() const { return m_flushId; }
    unsigned GetHostTimeId() const { return m_hostTimeId; }
    unsigned char GetDeferredMode() const { return m_deferredMode; }
    unsigned GetDeferredThreshold() const { return m_deferredThreshold; }
    unsigned GetDeferredTimeout() const { return m_deferredTimeout; }

protected:
    // Not deleted through this base: the owner holds the concrete subclass.
    ~ZluSendMessages() = default;

private:
    // One record to `kor` whose body is these 32-bit little-endian words.
    void SendWords(unsigned char kor, unsigned id, std::initializer_list<unsigned> words);
    void SendEmpty(unsigned id);

    unsigned m_openChannelId = 0;
    unsigned m_closeChannelId = 0;
    unsigned m_flushId = 0;
    unsigned m_hostTimeId = 0;
    unsigned char m_deferredMode = 0;
    unsigned m_deferredThreshold = 50;
    unsigned m_deferredTimeout = 60;
};
