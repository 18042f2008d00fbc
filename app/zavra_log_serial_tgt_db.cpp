// Target database extraction (-e): the extractor and its receiver exist only in an extraction run.
#include "zavra_log_serial_tgt_db.h"

#include <cerrno>
#include <memory>

#include "zavra_log_serial_app.h"
#include "zavra_log_serial_args.h"
#include "zv-progress.h"

namespace {

// Made at start-up of an extraction run and never destroyed: the port's reader thread may still
// deliver data while the process exits.
ZlbsTgtDb* extractor = nullptr;
ZlbsRxTgtDb* receiver = nullptr;
// Shown on a terminal from the first data record until the extraction ends.
std::unique_ptr<ZvProgress> meter;

} // namespace

void ZlbsTgtDb::Send(unsigned int size, unsigned char* data) {
    m_serial.Send(size, data);
}

void ZlbsRxTgtDb::OnRxData(unsigned int count, unsigned char* data) {
    m_extractor.OnNewData(data, count);
}

void ZlbsTgtDbStart(Zlbs& app) {
    extractor = new ZlbsTgtDb(app.serial);
    receiver = new ZlbsRxTgtDb(app.endOfRun, *extractor);
    app.serial.SetRxHandler(receiver);
    const char* name = app.args.databaseFile.c_str();
    if (!extractor->Configure(name, app.args.openChannelId)) {
        int reason = errno;
        ZvLog::Error("%s", extractor->GetError().c_str());
        error(ZLBS_ERROR_FILE, reason, "Failed to configure target database extraction '%s'", name);
    }
}

bool ZlbsTgtDbActive(Zlbs&) {
    return extractor != nullptr && extractor->IsActive();
}

int ZlbsTgtDbCheckProgress(Zlbs&, ZvAString& errorText) {
    if (extractor == nullptr) {
        errorText.clear();
        return ZlTgtDb::ProgressFailed;
    }
    int progress = extractor->CheckProgress();
    errorText = extractor->GetError();
    if (progress != ZlTgtDb::ProgressRunning) {
        meter.reset();
    } else if (extractor->GetState() == ZlTgtDb::StateReceiving) {
        unsigned received = 0, expected = 0;
        extractor->GetTransfer(received, expected);
        if (!meter)
            meter = std::make_unique<ZvProgress>("Database", expected,
                                                 ZvProgress::TerminalOrNull(noisiness), nullptr);
        meter->Update(received);
    }
    return progress;
}
