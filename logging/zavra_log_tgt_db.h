// ZlTgtDb: fetches the target's embedded database over the logging port.
//
// The exchange is a hash request (the target answers with status, hash and file size), then a
// data request (the target answers with a series of data records, the last one flagged). The
// owner feeds every chunk of port data to OnNewData and calls CheckProgress a few times per
// 500 ms; the pure virtual Send delivers a request to the port. Nothing is written to disk until
// the whole file has arrived and its length checks out; a failed attempt is retried once from the
// start, and a failure leaves no output file behind.
#pragma once

#include <mutex>

#include "quzol.h"
#include "zv-string-ascii.h"

class ZlTgtDb {
public:
    enum State {
        StateStart = 0,         // nothing sent yet
        StateHashRequested = 1, // waiting for the hash confirm
        StateHashReceived = 2,  // buffer allocated, data request due
        StateDataRequested = 3, // waiting for the first data confirm
        StateReceiving = 4,     // at least one data confirm taken
        StateFailed = 5,        // error text set
        StateComplete = 6       // file written
    };

    // Results of CheckProgress.
    enum Progress { ProgressRunning = 0, ProgressFailed = 1, ProgressComplete = 2 };

    static const unsigned kRequestSize = 16;
    static const unsigned kMaxFileSize = 0x200000;
    static const unsigned kHashTimeoutMs = 1000;
    static const unsigned kFirstDataTimeoutMs = 500;
    static const unsigned kDataTimeoutMs = 1000;

    ZlTgtDb();
    virtual ~ZlTgtDb();
    ZlTgtDb(const ZlTgtDb&) = delete;
    ZlTgtDb& operator=(const ZlTgtDb&) = delete;

    // Delivers one encoded request to the port.
    virtual void Send(unsigned int size, unsigned char* data) = 0;

    // Takes the output file (created, locked against other programs and emptied; false with the
    // error text and errno set when that fails: EWOULDBLOCK when another program holds it), then
    // arms the extraction with the ids derived from the base id.
    bool Configure(const char* fileName, unsigned int baseId);
    // ProgressRunning while running, ProgressFailed when failed for good (GetError says why),
    // ProgressComplete when the file has been written.
    int CheckProgress();
    // One chunk of port data, from the port's reader thread.
    void OnNewData(unsigned char* data, unsigned int size);

    void SendFileHashReq();
    void SendFileDataReq();
    // Encoded length (16), or 0 when the buffer is too small.
    unsigned EncodeFileHashReq(unsigned char* buffer, unsigned int size) const;
    unsigned EncodeFileDataReq(unsigned char* buffer, unsigned int size) const;

    void ProcessFileHashCnf(unsigned int bodySize, unsigned char* body);
    void ProcessFileDataCnf(unsigned int bodySize, unsigned char* body);

    // Drops any partly read record and frees the data buffer.
    void Close();

    bool IsActive() const { return m_active; }
    int GetState() const { return m_state; }
    const ZvAString& GetError() const { return m_error; }
    const ZvAString& GetFileName() const { return m_fileName; }
    unsigned GetExpectedSize() const { return m_expectedSize; }
    unsigned GetReceivedSize() const { return m_receivedSize; }
    // The bytes received so far and the file's announced size, read together under the lock that
    // the port's reader thread holds while it adds to them.
    void GetTransfer(unsigned& received, unsigned& expected) const;
    unsigned GetRetryCount() const { return m_retryCount; }
    unsigned GetHashReqId() const { return m_hashReqId; }
    unsigned GetHashCnfId() const { return m_hashCnfId; }
    unsigned GetDataReqId() const { return m_dataReqId; }
    unsigned GetDataCnfId() const { return m_dataCnfId; }

protected:
    // The millisecond tick behind every time-out; tests replace it with a controlled clock.
    virtual unsigned Now() const;

private:
    unsigned EncodeRequest(unsigned id, unsigned char* buffer, unsigned size) const;
    void SendRequest(unsigned id, int state, const char* name);
    void TakeRecord(QoZolRecordTag& record);
    int Fail();
    void ReleaseBuffer();
    void ResetReader();
    bool WriteFile();
    void CloseFile();

    // The port's reader thread (OnNewData) and the owner's progress checks both change the
    // state and the data buffer; without the lock a restart could free the buffer under a copy.
    mutable std::recursive_mutex m_lock;

    bool m_active = false;
    int m_state = StateStart;
    ZvAString m_fileName;
    // The output file, held locked from Configure until it is written or the extraction failed.
    int m_fd = -1;
    unsigned m_dataReqId = 0;
    unsigned m_dataCnfId = 0;
    unsigned m_hashReqId = 0;
    unsigned m_hashCnfId = 0;

    QoZolSyncCheck m_syncCheck;
    QoZolReadLiveMem m_reader;
    QoZolLiveRecord m_liveRecord;
    QoZolRecordTag* m_record = nullptr;

    unsigned m_progressTime = 0;
    ZvAString m_error;
    unsigned m_expectedSize = 0;
    unsigned m_receivedSize = 0;
    unsigned char* m_data = nullptr;
    unsigned m_retryCount = 0;
};
