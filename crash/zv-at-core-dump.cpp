#include "zv-at-core-dump.h"

#include <cstdlib>
#include <cstring>

#include "zv-file.h"

namespace {

const char kDumpStart[] = "start of external ram content, start address=";
const char kStartAddress[] = "start address=";
const char kSizeInBytes[] = "size in bytes=";
const char kHeaderEnd[] = ":\r\n";
const char kErrorReply[] = "\r\nERROR\r\n";
const char kNoDump[] = "No Full Core Dump Available";
const char kNoNewDump[] = "No new fullcoredump available";

constexpr unsigned kUnlimited = ~0u;

// Where the first header byte after `tail` starts in the chunk, or -1 when the chunk does not
// hold the whole tail.
long FindAfter(const unsigned char* chunk, unsigned length, const ZvAString& tail) {
    const void* at = memmem(chunk, length, tail.data(), tail.size());
    if (at == nullptr)
        return -1;
    return static_cast<const unsigned char*>(at) - chunk + static_cast<long>(tail.size());
}

} // namespace

void ZvAtCoreDumpReader::OnChunk(const unsigned char* chunk, unsigned length, ZvAString& status) {
    status.clear();
    switch (m_state) {
    case State::Searching:
        Search(chunk, length, status);
        break;
    case State::Copying:
        Copy(chunk, length, status);
        break;
    case State::Draining:
    case State::Ended:
        break;
    }
}

void ZvAtCoreDumpReader::Search(const unsigned char* chunk, unsigned length, ZvAString& status) {
    // Appended as a C string, like every reply text: a NUL cuts off the rest of the chunk.
    m_search.append(reinterpret_cast<const char*>(chunk),
                    strnlen(reinterpret_cast<const char*>(chunk), length));

    const size_t dumpStart = m_search.find(kDumpStart);
    if (dumpStart != ZvAString::npos) {
        StartCopying(chunk, length, status);
        return;
    }
    if (m_search.find(kErrorReply) != ZvAString::npos) {
        status = "Full core dump not supported trying alternate method.";
        m_outcome = Outcome::DumpError;
    } else if (m_search.find(kNoDump) != ZvAString::npos) {
        status = "No full core dump available.";
        m_outcome = Outcome::NoDumpAvailable;
    } else if (m_search.find(kNoNewDump) != ZvAString::npos) {
        status = "No new full core dump available.";
        m_outcome = Outcome::NoNewDumpAvailable;
    } else {
        if (m_search.size() > kSearchLimit)
            m_search.erase(0, m_search.size() - kSearchKeep);
        return;
    }
    m_state = State::Ended;
    m_search.clear();
}

void ZvAtCoreDumpReader::StartCopying(const unsigned char* chunk, unsigned length,
                                      ZvAString& status) {
    const size_t dumpStart = m_search.find(kDumpStart);
    const size_t address = m_search.find(kStartAddress, dumpStart);
    const size_t sizeField = m_search.find(kSizeInBytes, dumpStart);
    long dataStart = -1;
    int size = 0;
    if (address != ZvAString::npos && sizeField != ZvAString::npos) {
        const size_t number = sizeField + strlen(kSizeInBytes);
        size = atoi(m_search.c_str() + number);
        const size_t end = m_search.find(kHeaderEnd, number);
        if (end != ZvAString::npos) {
            // The size and what follows it up to the colon locate the data in this chunk; a
            // header that began in an earlier chunk is not waited for.
            const ZvAString tail = m_search.substr(number, end + strlen(kHeaderEnd) - number);
            dataStart = FindAfter(chunk, length, tail);
        }
    }
    m_search.clear();
    m_search.shrink_to_fit();
    m_state = State::Copying;
    if (dataStart < 0) {
        status = "Failed to find byte size, dumping all received data.";
        m_remaining = kUnlimited;
        Write(chunk, length, status);
        return;
    }
    m_announced = static_cast<unsigned>(size);
    if (m_limit != 0 && m_announced > m_limit) {
        // Announced larger than the room for it: not a byte of it is written.
        status.Printf("Core dump of %u bytes does not fit in the room for crash data (%llu "
                      "bytes); it is not saved.",
                      m_announced, m_limit);
        m_outcome = Outcome::TooLarge;
        m_state = State::Draining;
        return;
    }
    status.Printf("Reading core dump of %d bytes.", size);
    if (m_onSize)
        m_onSize(m_announced);
    const unsigned written = length - static_cast<unsigned>(dataStart);
    m_remaining = m_announced - written;
    m_wrapped = written > m_announced;
    m_raw = false;
    Write(chunk + dataStart, written, status);
    if (m_remaining == 0 && m_state == State::Copying)
        m_state = State::Draining;
}

void ZvAtCoreDumpReader::Copy(const unsigned char* chunk, unsigned length, ZvAString& status) {
    const unsigned count = length < m_remaining ? length : m_remaining;
    m_remaining -= count;
    Write(chunk, count, status);
    if (m_remaining == 0 && m_state == State::Copying)
        m_state = State::Draining;
}

void ZvAtCoreDumpReader::Write(const unsigned char* data, unsigned length, ZvAString& status) {
    if (m_limit != 0 && m_written + length > m_limit) {
        // A dump without a size, or one that brings more than it announced, grew past the room.
        if (!status.empty())
            status += "\n";
        status.AddPrintf("The core dump grew past the room for crash data (%llu bytes); it is not "
                         "saved.",
                         m_limit);
        m_outcome = Outcome::TooLarge;
        m_state = State::Draining;
        return;
    }
    m_file.Write(data, length);
    m_written += length;
}

bool ZvAtCoreDumpReader::IsIncomplete() const {
    return m_state == State::Copying && !m_raw && !m_wrapped && m_remaining != 0;
}
