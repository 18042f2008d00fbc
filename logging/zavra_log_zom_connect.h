// The daemon's connect thread keeps the target port open: at every connect request (the start,
// a port failure) it closes the sockets, the port and the current file, then opens and
// initialises the port, retrying every second (the reason told once, and again when it changes),
// and starts listening for a client once the port is open.
#pragma once

#include <atomic>

#include "zavra_log_zom_journal.h"
#include "zavra_log_zom_port.h"
#include "zavra_log_zom_server.h"
#include "zavra_log_zom_store.h"
#include "zv-sema.h"
#include "zv-thread.h"

class ZlZomConnect {
public:
    // Sets `portOpen` once the port is open and initialised.
    ZlZomConnect(ZlZomJournal& journal, ZlZomPort& port, ZlZomStore& store, ZlZomServer& server,
                 std::atomic<bool>& portOpen);
    ZlZomConnect(const ZlZomConnect&) = delete;
    ZlZomConnect& operator=(const ZlZomConnect&) = delete;

    bool Start();
    void Request() { m_sema.Post(); }
    // Ends the thread, waiting up to `graceMs` more for one still inside a port hook.
    void Shutdown(unsigned graceMs);

private:
    void Thread();
    void NoteOpenFailure(unsigned& failures, ZvAString& reported);
    void NoteOpenedAfterFailures(unsigned failures);

    ZlZomJournal& m_journal;
    ZlZomPort& m_port;
    ZlZomStore& m_store;
    ZlZomServer& m_server;
    std::atomic<bool>& m_portOpen;
    ZvThread m_thread;
    ZvSema m_sema;
    std::atomic<bool> m_end{false};
};
