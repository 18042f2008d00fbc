// Target database extraction (-e): the extractor bound to the tool's serial port and the receive
// handler that feeds it. Start-up calls ZlbsTgtDbStart; the wait loop polls the progress.
#pragma once

#include "zavra_log_serial_rx.h"
#include "zavra_log_tgt_db.h"
#include "zv-string-ascii.h"

class Zlbs;
class ZvItfAsyncSerial;

// The extractor's requests leave through the one serial interface.
class ZlbsTgtDb : public ZlTgtDb {
public:
    explicit ZlbsTgtDb(ZvItfAsyncSerial& serial) : m_serial(serial) {}
    void Send(unsigned int size, unsigned char* data) override;

private:
    ZvItfAsyncSerial& m_serial;
};

// Every chunk of port data goes to the extractor, on the port's reader thread.
class ZlbsRxTgtDb : public ZlbsRxBase {
public:
    ZlbsRxTgtDb(ZvSema& endOfRun, ZlTgtDb& extractor)
        : ZlbsRxBase(endOfRun), m_extractor(extractor) {}
    void OnRxData(unsigned int count, unsigned char* data) override;

private:
    ZlTgtDb& m_extractor;
};

// Configures the extractor with the database file and selects its receiver. Ends the process
// through error() on failure.
void ZlbsTgtDbStart(Zlbs& app);
// Whether an extraction is running (the wait loop then polls it instead of the time limit).
bool ZlbsTgtDbActive(Zlbs& app);
// 0 while running, 1 when it failed for good (`errorText` says why, may be empty), 2 when the
// file is complete.
int ZlbsTgtDbCheckProgress(Zlbs& app, ZvAString& errorText);
