#include "quzol-pcapng.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Block types and option codes of the pcapng format.
const unsigned kSectionHeader = 0x0A0D0D0Au;
const unsigned kByteOrderMagic = 0x1A2B3C4Du;
const unsigned kInterfaceDescription = 1;
const unsigned kEnhancedPacket = 6;
const unsigned kOptEnd = 0;
const unsigned kOptComment = 1;
const unsigned kShbUserAppl = 4;
const unsigned kIfName = 2;
const unsigned kIfTsResol = 9;

// Exported-PDU tags in front of every packet (tag and length big-endian, value padded to four);
// the list ends with tag 0 of length 0.
const unsigned kTagDissectorName = 12;

// Gathered blocks leave in writes of about this size even without a Flush.
const size_t kFlushAt = 256 * 1024;

size_t Padded(size_t size) {
    return (size + 3) & ~size_t(3);
}

} // namespace

void QoPcapngWriter::Put(const void* data, size_t size) {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    m_buffer.insert(m_buffer.end(), bytes, bytes + size);
}

void QoPcapngWriter::PutU16(unsigned value) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(value),
                                    static_cast<unsigned char>(value >> 8)};
    Put(bytes, 2);
}

void QoPcapngWriter::PutU32(unsigned value) {
    PutU16(value & 0xFFFFu);
    PutU16(value >> 16);
}

void QoPcapngWriter::PutPadding(size_t size) {
    m_buffer.insert(m_buffer.end(), Padded(size) - size, 0);
}

void QoPcapngWriter::PutOption(unsigned code, const void* value, size_t size) {
    PutU16(code);
    PutU16(static_cast<unsigned>(size));
    Put(value, size);
    PutPadding(size);
}

bool QoPcapngWriter::WriteHeader(const char* application) {
    const size_t appLength = strlen(application);
    PutU32(kSectionHeader);
    PutU32(static_cast<unsigned>(28 + 4 + Padded(appLength) + 4));
    PutU32(kByteOrderMagic);
    PutU16(1); // version 1.0
    PutU16(0);
    PutU32(0xFFFFFFFFu); // section length unknown: the file is written as a stream
    PutU32(0xFFFFFFFFu);
    PutOption(kShbUserAppl, application, appLength);
    PutU32(kOptEnd);
    PutU32(static_cast<unsigned>(28 + 4 + Padded(appLength) + 4));

    static const char kName[] = "zol";
    const unsigned char resolution = 6; // microseconds
    const unsigned idbLength = static_cast<unsigned>(20 + 4 + Padded(3) + 4 + 4 + 4);
    PutU32(kInterfaceDescription);
    PutU32(idbLength);
    PutU16(kQoPcapngLinkType);
    PutU16(0);
    PutU32(0); // no snapshot length limit
    PutOption(kIfName, kName, 3);
    PutOption(kIfTsResol, &resolution, 1);
    PutU32(kOptEnd);
    PutU32(idbLength);
    return Flush();
}

bool QoPcapngWriter::WritePacket(unsigned long long timeUs, const char* dissector,
                                 const unsigned char* data, unsigned size, const char* comment) {
    if (Failed())
        return false;
    // The name is sent with at least one NUL so that it ends within its padded value.
    const size_t nameLength = strlen(dissector);
    const size_t nameField = Padded(nameLength + 1);
    const size_t tags = 4 + nameField + 4;
    const size_t captured = tags + size;
    const size_t commentLength = comment != nullptr ? strlen(comment) : 0;
    const size_t options = comment != nullptr ? 4 + Padded(commentLength) + 4 : 0;
    const unsigned total = static_cast<unsigned>(28 + Padded(captured) + options + 4);

    // Header and tags laid out in place; resize zeroes the name's padding and the end tag.
    const size_t start = m_buffer.size();
    if (m_buffer.capacity() < kFlushAt)
        m_buffer.reserve(2 * kFlushAt);
    m_buffer.resize(start + 28 + tags);
    unsigned char* p = m_buffer.data() + start;
    const unsigned head[7] = {kEnhancedPacket,
                              total,
                              0,
                              static_cast<unsigned>(timeUs >> 32),
                              static_cast<unsigned>(timeUs),
                              static_cast<unsigned>(captured),
                              static_cast<unsigned>(captured)};
    for (unsigned word : head) {
        for (unsigned i = 0; i < 4; ++i)
            *p++ = static_cast<unsigned char>(word >> (8 * i));
    }
    // Big-endian tag and length, as the upper-PDU link type has them.
    const unsigned char tag[4] = {0, kTagDissectorName, 0, static_cast<unsigned char>(nameField)};
    memcpy(p, tag, 4);
    memcpy(p + 4, dissector, nameLength);
    Put(data, size);
    PutPadding(captured);
    if (comment != nullptr) {
        PutOption(kOptComment, comment, commentLength);
        PutU32(kOptEnd);
    }
    PutU32(total);
    ++m_packets;
    if (m_buffer.size() >= kFlushAt)
        return Flush();
    return true;
}

bool QoPcapngWriter::Flush() {
    size_t done = 0;
    while (m_errno == 0 && done < m_buffer.size()) {
        const ssize_t n = write(m_fd, m_buffer.data() + done, m_buffer.size() - done);
        if (n > 0)
            done += static_cast<size_t>(n);
        else if (n < 0 && errno != EINTR)
            m_errno = errno;
        else if (n == 0)
            m_errno = EIO;
    }
    m_buffer.clear();
    return m_errno == 0;
}
