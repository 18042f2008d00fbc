// The port edge of the daemon-mode store: what the store needs of the target port, implemented by
// the tool. Called from the store's threads: the connect thread closes, opens and initialises the
// port; the socket thread passes a client's bytes on and reports it gone; the port reader thread
// (inside NewLogData) starts each new segment file.
#pragma once

#include "zv-string-ascii.h"

class ZlZomPort {
public:
    virtual ~ZlZomPort() = default;
    virtual void ClosePort() = 0;
    virtual bool OpenPort() = 0;
    virtual void SendPort(unsigned char* data, unsigned int size) = 0;
    virtual bool InitialiseTarget() = 0;
    virtual void SocketClientDisconnect() = 0;
    virtual void OnNewLogSegment() = 0;
    // For the messages of a port that will not open: its name, and why the last OpenPort failed.
    virtual ZvAString PortName() { return ZvAString(); }
    virtual ZvAString PortOpenFailure() { return ZvAString(); }
};
