#include "quzol-read-file.h"

#include <sys/stat.h>

bool QoZolReadFileBase::OpenRead(const char* path) {
    Close();
    ResetStats();
    m_fileSize = 0;
    if (path == nullptr)
        return false;
    struct stat info;
    if (stat(path, &info) == 0)
        m_fileSize = info.st_size;
    if (!DoOpen(path))
        return false;
    m_eof = false;
    return true;
}

bool QoZolReadFileBase::Rewind() {
    if (!DoIsOpen() || !DoSeekStart())
        return false;
    ResetStats();
    m_eof = false;
    return true;
}

bool QoZolReadFileBase::GetSync(QoZolReadHeader& header) {
    // One sync error per hunt, however many bytes it slides over.
    bool hunting = false;
    for (;;) {
        if (!header.ReadBytes(*this, 4)) {
            // Fewer than four bytes left: they can start nothing.
            m_eof = true;
            m_skipped += header.GetCount();
            m_offset += header.GetCount();
            header.Reset();
            return false;
        }
        if (MatchSync(header.GetWord0()))
            return true;
        if (!hunting)
            ++m_syncErrors;
        hunting = true;
        header.ShiftData(1);
        ++m_skipped;
        ++m_offset;
    }
}

bool QoZolReadFileBase::GetHeader(QoZolReadHeader& header, QoZolRecordTag* record) {
    for (;;) {
        if (!GetSync(header))
            return false;
        if (!header.ReadBytes(*this, kQoZolHeaderSize)) {
            // A header cut off by the end of the file: left as trailing bytes.
            m_eof = true;
            return false;
        }
        if (record->SetHeader(header.GetHeader()))
            return true;
        header.ShiftData(1);
        ++m_skipped;
        ++m_offset;
        ++m_syncErrors;
    }
}

bool QoZolReadFileBase::ReadRecord(QoZolRecordTag* record) {
    if (record == nullptr || !DoIsOpen() || m_eof)
        return false;
    QoZolReadHeader header;
    if (!GetHeader(header, record))
        return false;
    // Body and padding directly behind the header, so the record is kept as stored.
    const unsigned rest = record->GetBodySize() + record->GetPadding();
    if (rest != 0 && DoRead(record->GetBody(), rest) != rest) {
        m_eof = true;
        return false;
    }
    m_offset += record->GetTotalSize();
    OnRecordComplete();
    return true;
}

QoZolReadFile::~QoZolReadFile() {
    DoClose();
}

unsigned QoZolReadFile::DoRead(void* buffer, unsigned size) {
    if (size == 0)
        return 0;
    return static_cast<unsigned>(m_file.Read(buffer, size));
}

void QoZolReadFile::Close() {
    DoClose();
    m_eof = true;
}

long long QoZolReadFile::DoFtell() const {
    return m_file.Ftell();
}

void QoZolReadFile::DoClose() {
    m_file.Close();
}

bool QoZolReadFile::DoOpen(const char* path) {
    return m_file.Open(path, "rb");
}

bool QoZolReadFile::DoSeekStart() {
    if (!m_file.IsOpen())
        return false;
    // A script is sent again from its start: forget the end and error state of the last pass.
    clearerr(m_file.GetHandle());
    return m_file.Fseek(0, SEEK_SET);
}
