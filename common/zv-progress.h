// ZvProgress: what long work (a core dump of hundreds of MiB, a database) shows while it runs. On
// a terminal one line that rewrites itself a few times a second (bytes, percent, rate, time left)
// and is cleared at the end; in a daemon also a journal line at most every 10 s. Without either
// it costs one clock reading per update.
#pragma once

#include <cstdio>
#include <functional>

#include "zv-string-ascii.h"

class ZvProgress {
public:
    using Journal = std::function<void(const char*)>;
    using Clock = std::function<unsigned long long()>; // milliseconds

    static constexpr unsigned long long kTerminalEveryMs = 250;
    static constexpr unsigned long long kJournalEveryMs = 10000;

    // `what` names the work ("Core dump"); `total` is its size in bytes, 0 when unknown.
    // `terminal` takes the rewriting line (null: none); `journal` the daemon's lines (may be
    // empty).
    ZvProgress(const char* what, unsigned long long total, FILE* terminal, Journal journal,
               Clock now = SteadyMs);
    ~ZvProgress() { Finish(); }
    ZvProgress(const ZvProgress&) = delete;
    ZvProgress& operator=(const ZvProgress&) = delete;

    // `done` bytes of the work are done.
    void Update(unsigned long long done);
    // Clears the terminal line so that another message can be printed whole; the next update
    // that is due draws it again.
    void Clear();
    // Clears the terminal line; later updates show nothing.
    void Finish();

    // "Core dump: 12.0 of 48.0 MiB (25%), 4.0 MiB/s, 0:09 left"; without a total the bytes and
    // the rate only.
    static ZvAString Describe(const char* what, unsigned long long done, unsigned long long total,
                              unsigned long long elapsedMs);
    // Standard error when it is a terminal and the verbosity (-v) is the default or higher, else
    // null: progress never reaches a file or a pipe, nor a quiet run.
    static FILE* TerminalOrNull(int verbosity, bool isTerminal);
    static FILE* TerminalOrNull(int verbosity);
    static unsigned long long SteadyMs();

private:
    ZvAString m_what;
    unsigned long long m_total;
    FILE* m_terminal;
    Journal m_journal;
    Clock m_now;
    unsigned long long m_start;
    unsigned long long m_lastTerminal;
    unsigned long long m_lastJournal;
    bool m_shown = false;
    bool m_finished = false;
};
