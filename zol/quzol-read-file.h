// File readers: records read one by one from a file of ZOL records (a script or a capture).
#pragma once

#include "quzol-read.h"
#include "zv-file.h"

class QoZolReadFileBase : public QoZolReadBase {
public:
    using QoZolReadBase::QoZolReadBase;

    // Closes any open file, resets the statistics, notes the file's size and opens it for binary
    // reading. False when the file cannot be opened.
    bool OpenRead(const char* path);
    // Reads the next record into `record`, skipping (and counting) bytes that do not start a valid
    // one. False without a record or an open file, and at the end of the file.
    bool ReadRecord(QoZolRecordTag* record);
    // Moves back to the start of the file and clears the end state, to send a script again.
    // The statistics are reset as well. False when no file is open or the seek fails.
    bool Rewind();

    bool IsEof() const { return m_eof; }
    long long GetFileSize() const { return m_fileSize; }

    virtual long long DoFtell() const = 0;
    virtual void DoClose() = 0;
    // Opens `path` for binary reading; false on failure.
    virtual bool DoOpen(const char* path) = 0;
    virtual bool DoSeekStart() = 0;
    virtual bool DoIsOpen() const = 0;

protected:
    bool GetSync(QoZolReadHeader& header);
    bool GetHeader(QoZolReadHeader& header, QoZolRecordTag* record);

    bool m_eof = false;
    long long m_fileSize = 0;
};

class QoZolReadFile : public QoZolReadFileBase {
public:
    using QoZolReadFileBase::QoZolReadFileBase;
    ~QoZolReadFile() override;

    unsigned DoRead(void* buffer, unsigned size) override;
    void Close() override;
    long long DoFtell() const override;
    void DoClose() override;
    bool DoOpen(const char* path) override;
    bool DoSeekStart() override;
    bool DoIsOpen() const override { return m_file.IsOpen(); }

private:
    // Mutable because telling the position is not const on the file handle.
    mutable ZvFile m_file;
};
