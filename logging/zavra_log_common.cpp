#include "zavra_log_common.h"

#include <initializer_list>

#include "quzol-write.h"
#include "zv-time.h"

namespace {
constexpr unsigned kDefaultBaseId = 0x35;
constexpr unsigned char kKor0 = 0;
constexpr unsigned char kKor1 = 1;

// The target reads the host time's 64-bit values high word first.
void PutHighWordFirst(unsigned char* at, unsigned long long value) {
    QoZolPutWord(at, static_cast<unsigned>(value >> 32));
    QoZolPutWord(at + 4, static_cast<unsigned>(value));
}
} // namespace

unsigned ZluSendMessages::SetOpenChannelId(unsigned base) {
    if (base == 0)
        base = kDefaultBaseId;
    m_openChannelId = base;
    m_closeChannelId = base + 1;
    m_flushId = base + 6;
    m_hostTimeId = base + 11;
    return m_openChannelId;
}

void ZluSendMessages::SetDeferredLogging(unsigned char mode, unsigned threshold, unsigned timeout) {
    m_deferredMode = mode;
    m_deferredThreshold = threshold;
    m_deferredTimeout = timeout;
}

void ZluSendMessages::SendOpenChannel() {
    for (unsigned char kor : {kKor0, kKor1}) {
        unsigned char buffer[24];
        unsigned total = 0;
        unsigned char* body =
            QoZolWrite::EncodeZol(buffer, sizeof(buffer), 12, kor, m_openChannelId, 0, total);
        if (body == nullptr)
            continue;
        QoZolPutWord(body, m_deferredMode);
        QoZolPutWord(body + 4, m_deferredThreshold);
        QoZolPutWord(body + 8, m_deferredTimeout);
        SendMsg(kor, buffer, total);
    }
}

void ZluSendMessages::SendEmpty(unsigned id) {
    for (unsigned char kor : {kKor0, kKor1}) {
        unsigned char buffer[12];
        unsigned total = 0;
        if (QoZolWrite::EncodeZol(buffer, sizeof(buffer), 0, kor, id, 0, total) != nullptr)
            SendMsg(kor, buffer, total);
    }
}

void ZluSendMessages::SendCloseChannel() {
    SendEmpty(m_closeChannelId);
}

void ZluSendMessages::SendFlushBuffer() {
    SendEmpty(m_flushId);
}

void ZluSendMessages::SendHostTime() {
    const long long epoch = ZvTime::UsSinceEpoch();
    const long long midnight = ZvTime::UsSinceMidnight();
    SendHostTime(static_cast<unsigned long long>(epoch), static_cast<unsigned long long>(midnight));
}

void ZluSendMessages::SendHostTime(unsigned long long usSinceEpoch,
                                   unsigned long long usSinceMidnight) {
    unsigned char buffer[28];
    unsigned total = 0;
    unsigned char* body =
        QoZolWrite::EncodeZol(buffer, sizeof(buffer), 16, kKor1, m_hostTimeId, 0, total);
    if (body == nullptr)
        return;
    PutHighWordFirst(body, usSinceEpoch);
    PutHighWordFirst(body + 8, usSinceMidnight);
    SendMsg(kKor1, buffer, total);
}
