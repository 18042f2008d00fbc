// QoZolWrite: the encoder of outgoing target messages and a writer of record files.
#pragma once

#include <cstdio>

#include "quzol-record.h"

class QoZolWrite {
public:
    QoZolWrite() = default;
    ~QoZolWrite();
    QoZolWrite(const QoZolWrite&) = delete;
    QoZolWrite& operator=(const QoZolWrite&) = delete;

    // Writes a legacy (layout A) header into `buffer` and returns buffer + 12, where the caller
    // puts the body; null when the buffer is null or smaller than the record. `totalSize` is
    // always set to 12 + bodySize + padding. The id is deliberately not masked to 13 bits.
    static unsigned char* EncodeZol(unsigned char* buffer, unsigned bufferSize, unsigned bodySize,
                                    unsigned char kor, unsigned id, unsigned time,
                                    unsigned& totalSize);

    // Opens (truncates) the output file; closes any earlier one first.
    bool OpenWrite(const char* path);
    void Close();
    bool IsOpen() const { return m_file != nullptr; }

    // Writes header, body and padding in one write; the byte count grows only on success.
    bool WriteRecord(const QoZolRecordTag* record);
    static bool WriteRecord(FILE* file, const QoZolRecordTag* record,
                            unsigned long long& bytesWritten);
    bool WriteData(unsigned size, const unsigned char* data);

    void ResetStats() { m_bytesWritten = 0; }
    unsigned long long GetBytesWritten() const { return m_bytesWritten; }

private:
    FILE* m_file = nullptr;
    unsigned long long m_bytesWritten = 0;
};
