#include "zavra_log_common.h"

#include "quzol-write.h"
#include "zv-time.h"

namespace {
constexpr unsigned kDefaultBaseId = 0x35;
constexpr unsigned char kKor0 = 0;
constexpr unsigned char kKor1 = 1;
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

void ZluSendMessages::SendWords(unsigned char kor, unsigned id,
                                std::initializer_list<unsigned> words) {
    unsigned char buffer[kQoZolHeaderSize + 16];
    unsigned total = 0;
    unsigned char* body = QoZolWrite::EncodeZol(
        buffer, sizeof(buffer), static_cast<unsigned>(4 * words.size()), kor, id, 0, total);
    if (body == nullptr)
        return;
    for (unsigned word : words) {
        QoZolPutWord(body, word);
        body += 4;
    }
    SendMsg(kor, buffer, total);
}

void ZluSendMessages::SendOpenChannel() {
    for (unsigned char kor : {kKor0, kKor1})
        SendWords(kor, m_openChannelId, {m_deferredMode, m_deferredThreshold, m_deferredTimeout});
}

void ZluSendMessages::SendEmpty(unsigned id) {
    for (unsigned char kor : {kKor0, kKor1})
        SendWords(kor, id, {});
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
    // The target reads the 64-bit values high word first.
    SendWords(kKor1, m_hostTimeId,
              {static_cast<unsigned>(usSinceEpoch >> 32), static_cast<unsigned>(usSinceEpoch),
               static_cast<unsigned>(usSinceMidnight >> 32),
               static_cast<unsigned>(usSinceMidnight)});
}
