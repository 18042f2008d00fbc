#include "zavra_log_zom_connect.h"

namespace {
const unsigned kEndWaitMs = 200;
const unsigned kOpenRetryMs = 1000;
} // namespace

ZlZomConnect::ZlZomConnect(ZlZomJournal& journal, ZlZomPort& port, ZlZomStore& store,
                           ZlZomServer& server, std::atomic<bool>& portOpen)
    : m_journal(journal), m_port(port), m_store(store), m_server(server), m_portOpen(portOpen) {
    m_sema.Create(0);
}

bool ZlZomConnect::Start() {
    if (m_thread.StartMember<ZlZomConnect, &ZlZomConnect::Thread>(this))
        return true;
    m_journal.Text("Failed to start connect thread.");
    return false;
}

void ZlZomConnect::Shutdown(unsigned graceMs) {
    m_end = true;
    m_sema.Post();
    if (!m_thread.WaitForThreadFinish(kEndWaitMs))
        m_thread.WaitForThreadFinish(graceMs);
}

void ZlZomConnect::Thread() {
    for (;;) {
        // The end flag is looked at before waiting too: the retry pause below may have taken the
        // post that came with it.
        if (m_end || !m_sema.Wait() || m_end) {
            m_journal.Text("ConnectThread: Finished.");
            return;
        }
        m_journal.Text("ConnectThread: Connect request.");
        m_portOpen = false;
        if (m_server.Serves()) {
            m_journal.Text("ConnectThread: Closing sockets as target port closed.");
            m_server.CloseSockets();
        }
        m_port.ClosePort();
        m_store.CloseCurrentFile();

        unsigned failures = 0;
        ZvAString reported;
        while (!m_portOpen && !m_end) {
            bool ok = m_port.OpenPort();
            if (ok)
                ok = m_port.InitialiseTarget();
            m_portOpen = ok;
            if (!ok) {
                NoteOpenFailure(failures, reported);
                // A pause that an end request (or another connect request) cuts short; the
                // request is this very retry, so taking its post loses nothing.
                m_sema.Wait(kOpenRetryMs);
            }
        }
        if (!m_portOpen)
            continue;
        m_journal.Text("ConnectThread: Port opened.");
        if (failures != 0)
            NoteOpenedAfterFailures(failures);
        if (m_server.Serves())
            m_server.OpenListeningSocket();
    }
}

void ZlZomConnect::NoteOpenFailure(unsigned& failures, ZvAString& reported) {
    ++failures;
    // Retried every second, for days if need be: the reason is told once, and again only when it
    // changes (the modem appeared, but another program holds its port).
    ZvAString reason = m_port.PortOpenFailure();
    if (reason.empty())
        reason = "The port could not be opened.";
    if (failures != 1 && reason == reported)
        return;
    reported = reason;
    m_journal.Fault("ConnectThread: %s Retrying every second.", reason.c_str());
    ZvLog::Warning("%s Retrying every second.", reason.c_str());
}

void ZlZomConnect::NoteOpenedAfterFailures(unsigned failures) {
    const ZvAString port = m_port.PortName();
    m_journal.Text("ConnectThread: Port '%s' opened after %u failed attempts.", port.c_str(),
                   failures);
    ZvLog::Warning("The port '%s' opened after %u failed attempts.", port.c_str(), failures);
}
