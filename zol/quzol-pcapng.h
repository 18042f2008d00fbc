// A pcapng writer for ZOL packets: one section, one interface of link type 252 (Wireshark's
// "upper PDU": each packet starts with tags that name the dissector to call), then one enhanced
// packet block per packet, time stamps in microseconds.
//
// The dissector name in every packet is what lets Wireshark find the ZOL dissector without any
// preference: "zol" for a record, "zol_skipped" for bytes that belong to no record.
#pragma once

#include <cstddef>
#include <vector>

// Link type of the interface: LINKTYPE_WIRESHARK_UPPER_PDU.
constexpr unsigned kQoPcapngLinkType = 252;
// Dissector names carried by the packets.
constexpr const char* kQoPcapngRecordDissector = "zol";
constexpr const char* kQoPcapngSkippedDissector = "zol_skipped";

class QoPcapngWriter {
public:
    // Writes to the file descriptor `fd`, which stays the caller's. Blocks are gathered in memory
    // and leave on Flush (or when the buffer fills).
    explicit QoPcapngWriter(int fd) : m_fd(fd) {}
    ~QoPcapngWriter() { Flush(); }
    QoPcapngWriter(const QoPcapngWriter&) = delete;
    QoPcapngWriter& operator=(const QoPcapngWriter&) = delete;

    // The section header (naming `application`) and the interface description.
    bool WriteHeader(const char* application);
    // One packet at `timeUs` microseconds since 1970, handed to `dissector`, with an optional
    // packet comment.
    bool WritePacket(unsigned long long timeUs, const char* dissector, const unsigned char* data,
                     unsigned size, const char* comment = nullptr);
    // Writes out everything gathered. False once a write has failed (every later call too).
    bool Flush();

    bool Failed() const { return m_errno != 0; }
    // The errno of the failed write (EPIPE when the reader has gone).
    int Errno() const { return m_errno; }
    unsigned long long Packets() const { return m_packets; }

private:
    void Put(const void* data, size_t size);
    void PutU16(unsigned value);
    void PutU32(unsigned value);
    void PutPadding(size_t size);
    // An option of code `code` with its value padded to four bytes.
    void PutOption(unsigned code, const void* value, size_t size);

    int m_fd;
    int m_errno = 0;
    unsigned long long m_packets = 0;
    std::vector<unsigned char> m_buffer;
};
