#include "quzol-write.h"

QoZolWrite::~QoZolWrite() {
    Close();
}

unsigned char* QoZolWrite::EncodeZol(unsigned char* buffer, unsigned bufferSize, unsigned bodySize,
                                     unsigned char kor, unsigned id, unsigned time,
                                     unsigned& totalSize) {
    const unsigned padding = QoZolPadding(bodySize);
    const unsigned total = bodySize + kQoZolHeaderSize + padding;
    totalSize = total;
    if (buffer == nullptr || total > bufferSize)
        return nullptr;
    buffer[0] = 0x7F;
    buffer[1] = 0x80;
    buffer[2] = 0x7F;
    buffer[3] = 0x80;
    QoZolPutWord(buffer + 4, time);
    buffer[8] = static_cast<unsigned char>(total >> 2);
    buffer[9] = static_cast<unsigned char>(total >> 10);
    buffer[10] = static_cast<unsigned char>(id);
    // The id is not masked first: ids of 0x2000 and up spill into the padding and KOR bits.
    buffer[11] =
        static_cast<unsigned char>((id >> 8) | (static_cast<unsigned>(kor) << 7) | (padding << 5));
    return buffer + kQoZolHeaderSize;
}

bool QoZolWrite::OpenWrite(const char* path) {
    Close();
    if (path == nullptr)
        return false;
    m_file = fopen(path, "wb");
    return m_file != nullptr;
}

void QoZolWrite::Close() {
    if (m_file != nullptr) {
        fclose(m_file);
        m_file = nullptr;
    }
}

bool QoZolWrite::WriteRecord(const QoZolRecordTag* record) {
    return WriteRecord(m_file, record, m_bytesWritten);
}

bool QoZolWrite::WriteRecord(FILE* file, const QoZolRecordTag* record,
                             unsigned long long& bytesWritten) {
    if (file == nullptr || record == nullptr)
        return false;
    const unsigned total = record->GetTotalSize();
    if (fwrite(record->GetData(), 1, total, file) != total)
        return false;
    bytesWritten += total;
    return true;
}

bool QoZolWrite::WriteData(unsigned size, const unsigned char* data) {
    if (m_file == nullptr || (data == nullptr && size != 0))
        return false;
    if (fwrite(data, 1, size, m_file) != size)
        return false;
    m_bytesWritten += size;
    return true;
}
