#include "zavra_log_tgt_db.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "zv-file-util.h"
#include "zv-file.h"
#include "zv-log.h"
#include "zv-time.h"

namespace {

// Request and confirm ids, as offsets from the base id of OS_LOG_CHANNEL_OPEN.
const unsigned kHashReqOffset = 7;
const unsigned kHashCnfOffset = 8;
const unsigned kDataReqOffset = 9;
const unsigned kDataCnfOffset = 10;

// Requests go to KOR 1 with time 0 and a body of one zero word.
const unsigned char kRequestKor = 1;
const unsigned kRequestBodySize = 4;

const unsigned kHashCnfMinBody = 12;
const unsigned kDataCnfHeaderSize = 8;

} // namespace

ZlTgtDb::ZlTgtDb() {
    // Confirms come in the legacy layout or in the per-processor layout of KOR 1.
    m_syncCheck.Add(0x807F807F, 0xFFFFFFFF);
    m_syncCheck.Add(0x78DAE4, 0xFFFFFF);
    m_syncCheck.Add(0x30CF29, 0xFFFFFF);
    m_reader.SetSyncCheck(&m_syncCheck);
    m_record = QoZolRecordTag::Create(kQoZolMaxBody, kQoZolSyncA);
    m_liveRecord.SetRecord(m_record);
}

ZlTgtDb::~ZlTgtDb() {
    CloseFile();
    Close();
    QoZolRecordTag::Destroy(&m_record);
}

unsigned ZlTgtDb::Now() const {
    return ZvTime::GetMsTickTime();
}

bool ZlTgtDb::Configure(const char* fileName, unsigned int baseId) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    m_error.clear();
    // The file is taken at once and held until the extraction ends: a file that another run is
    // writing is refused here, untouched, and an existing file of ours is emptied only once held.
    CloseFile();
    m_fd = ZvFile::OpenLockedForWriting(fileName);
    if (m_fd < 0 || !ZvFile::TruncateIfRegular(m_fd)) {
        const int reason = errno;
        if (reason == EWOULDBLOCK)
            m_error.Printf("The database file '%s' is in use by another program.", fileName);
        else
            m_error.Printf("Failed to open '%s' file for writing.", fileName);
        CloseFile();
        errno = reason; // the owner's exit status
        return false;
    }
    Close();
    m_fileName = fileName;
    m_active = true;
    m_retryCount = 0;
    m_state = StateStart;
    m_hashReqId = baseId + kHashReqOffset;
    m_hashCnfId = baseId + kHashCnfOffset;
    m_dataReqId = baseId + kDataReqOffset;
    m_dataCnfId = baseId + kDataCnfOffset;
    m_expectedSize = 0;
    m_receivedSize = 0;
    m_progressTime = Now();
    return true;
}

void ZlTgtDb::GetTransfer(unsigned& received, unsigned& expected) const {
    std::lock_guard<std::recursive_mutex> lock(m_lock);
    received = m_receivedSize;
    expected = m_expectedSize;
}

int ZlTgtDb::CheckProgress() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    unsigned elapsed = ZvTime::DiffMsTime(m_progressTime, Now());
    switch (m_state) {
    case StateStart:
        SendFileHashReq();
        // A request that cannot be encoded would never be sent: fail rather than wait forever.
        return m_error.empty() ? ProgressRunning : Fail();
    case StateHashRequested:
        if (elapsed > kHashTimeoutMs) {
            m_error = "Target database extraction timed out while waiting for hash data";
            return Fail();
        }
        return ProgressRunning;
    case StateHashReceived:
        SendFileDataReq();
        return m_error.empty() ? ProgressRunning : Fail();
    case StateDataRequested:
        if (elapsed > kFirstDataTimeoutMs) {
            m_error =
                "Target database extraction timed out while waiting for the start of file data";
            return Fail();
        }
        return ProgressRunning;
    case StateReceiving:
        if (elapsed > kDataTimeoutMs) {
            m_error = "Target database extraction timed out while waiting for file data";
            return Fail();
        }
        return ProgressRunning;
    case StateComplete:
        return ProgressComplete;
    default:
        return Fail();
    }
}

// Ends the current attempt: nothing of it stays in memory or on disk. The first failure restarts
// the whole exchange, the second is final.
int ZlTgtDb::Fail() {
    m_state = StateFailed;
    Close();
    if (m_retryCount == 0) {
        // Still ours for the retry, and empty again.
        if (m_fd >= 0 && ZvFile::TruncateIfRegular(m_fd))
            lseek(m_fd, 0, SEEK_SET);
        m_retryCount = 1;
        ZvLog::Status("Target database extraction failed, retrying.");
        m_error.clear();
        m_state = StateStart;
        m_progressTime = Now();
        return ProgressRunning;
    }
    if (!m_fileName.empty() && m_fd >= 0)
        ZvFileUtil::DelFile(m_fileName.c_str());
    CloseFile();
    return ProgressFailed;
}

void ZlTgtDb::OnNewData(unsigned char* data, unsigned int size) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (m_state <= StateStart || m_record == nullptr) {
        return;
    }
    m_reader.SetData(data, size);
    while (m_reader.ReadLiveRecord(m_liveRecord)) {
        TakeRecord(*m_record);
    }
}

void ZlTgtDb::TakeRecord(QoZolRecordTag& record) {
    unsigned id = record.GetId();
    unsigned char* body = record.GetBody();
    if (m_state == StateHashRequested && id == m_hashCnfId) {
        ProcessFileHashCnf(record.GetBodySize(), body);
    } else if ((m_state == StateDataRequested || m_state == StateReceiving) && id == m_dataCnfId) {
        ProcessFileDataCnf(record.GetBodySize(), body);
    }
}

void ZlTgtDb::ProcessFileHashCnf(unsigned int bodySize, unsigned char* body) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (bodySize < kHashCnfMinBody || body == nullptr) {
        return;
    }
    unsigned status = QoZolGetWord(body);
    unsigned hash = QoZolGetWord(body + 4);
    unsigned size = QoZolGetWord(body + 8);
    if (status != 0 || hash == 0 || size > kMaxFileSize) {
        return;
    }
    m_progressTime = Now();
    m_receivedSize = 0;
    m_expectedSize = size;
    ReleaseBuffer();
    // One spare byte so that an empty database still gets a buffer of its own.
    m_data = static_cast<unsigned char*>(malloc(size + 1));
    if (m_data == nullptr) {
        m_error.Printf("Target database collect failed as unable to allocate %u bytes of memory.",
                       size);
        m_state = StateFailed;
        return;
    }
    m_state = StateHashReceived;
}

void ZlTgtDb::ProcessFileDataCnf(unsigned int bodySize, unsigned char* body) {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    if (bodySize < kDataCnfHeaderSize || body == nullptr || m_data == nullptr) {
        return;
    }
    if (QoZolGetWord(body) != 0) {
        return;
    }
    m_state = StateReceiving;
    m_progressTime = Now();
    unsigned chunk = bodySize - kDataCnfHeaderSize;
    if (chunk > m_expectedSize - m_receivedSize) {
        m_error.Printf(
            "Target database extraction failed, received more data than expected (%u, got %u).",
            m_expectedSize, m_receivedSize + chunk);
        m_state = StateFailed;
        return;
    }
    memcpy(m_data + m_receivedSize, body + kDataCnfHeaderSize, chunk);
    m_receivedSize += chunk;
    if (QoZolGetWord(body + 4) != 0) {
        return;
    }
    if (m_receivedSize != m_expectedSize) {
        m_error.Printf("Target database incomplete, expected %u, got %u.", m_expectedSize,
                       m_receivedSize);
        m_state = StateFailed;
        return;
    }
    if (!WriteFile()) {
        m_state = StateFailed;
        return;
    }
    Close();
    m_error.clear();
    m_state = StateComplete;
}

// Writes the collected bytes in one go; a write or close failure counts as a failed write, so a
// file cut short by a full disk is never reported as complete.
bool ZlTgtDb::WriteFile() {
    if (m_fd < 0) {
        m_error.Printf("Failed to open '%s' file for writing.", m_fileName.c_str());
        return false;
    }
    int reason = 0;
    const size_t written = ZvFile::WriteAll(m_fd, m_data, m_receivedSize, reason);
    // A device (a pipe, a tty) cannot be synced, and need not be.
    if (written != m_receivedSize || (fsync(m_fd) != 0 && errno != EINVAL)) {
        m_error.Printf("Failed to write '%d' bytes to database file.", int(m_receivedSize));
        return false;
    }
    CloseFile();
    return true;
}

void ZlTgtDb::CloseFile() {
    if (m_fd >= 0)
        close(m_fd);
    m_fd = -1;
}

unsigned ZlTgtDb::EncodeRequest(unsigned id, unsigned char* buffer, unsigned size) const {
    if (buffer == nullptr || size < kRequestSize) {
        return 0;
    }
    unsigned total = 0;
    unsigned char* body =
        QoZolWrite::EncodeZol(buffer, size, kRequestBodySize, kRequestKor, id, 0, total);
    if (body == nullptr) {
        return 0;
    }
    memset(body, 0, kRequestBodySize);
    return total;
}

unsigned ZlTgtDb::EncodeFileHashReq(unsigned char* buffer, unsigned int size) const {
    return EncodeRequest(m_hashReqId, buffer, size);
}

unsigned ZlTgtDb::EncodeFileDataReq(unsigned char* buffer, unsigned int size) const {
    return EncodeRequest(m_dataReqId, buffer, size);
}

void ZlTgtDb::SendRequest(unsigned id, int state, const char* name) {
    unsigned char buffer[kRequestSize];
    unsigned length = EncodeRequest(id, buffer, sizeof(buffer));
    if (length == 0) {
        m_error.Printf("Failed to encode the %s message.", name);
        return;
    }
    // The progress time is left alone: the time-outs run from Configure, the restart or the
    // confirm that made this request due.
    m_state = state;
    Send(length, buffer);
}

void ZlTgtDb::SendFileHashReq() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    SendRequest(m_hashReqId, StateHashRequested, "OS_LOG_FILE_HASH_REQ");
}

void ZlTgtDb::SendFileDataReq() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    SendRequest(m_dataReqId, StateDataRequested, "OS_LOG_FILE_DATA_REQ");
}

void ZlTgtDb::Close() {
    std::lock_guard<std::recursive_mutex> guard(m_lock);
    ResetReader();
    ReleaseBuffer();
}

void ZlTgtDb::ReleaseBuffer() {
    free(m_data);
    m_data = nullptr;
}

void ZlTgtDb::ResetReader() {
    m_reader.Close();
    m_liveRecord.Reset();
}
