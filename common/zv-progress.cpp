#include "zv-progress.h"

#include <unistd.h>

#include <chrono>

namespace {

const double kMiB = 1024.0 * 1024.0;
// The tool's -v without an argument; below it (-v0, -v1) a run prints only what went wrong.
const int kDefaultVerbosity = 2;

} // namespace

ZvProgress::ZvProgress(const char* what, unsigned long long total, FILE* terminal, Journal journal,
                       Clock now)
    : m_what(what), m_total(total), m_terminal(terminal), m_journal(std::move(journal)),
      m_now(std::move(now)), m_start(m_now()), m_lastTerminal(m_start), m_lastJournal(m_start) {}

void ZvProgress::Update(unsigned long long done) {
    if (m_finished || (m_terminal == nullptr && !m_journal))
        return;
    const unsigned long long now = m_now();
    const bool toTerminal = m_terminal != nullptr && now - m_lastTerminal >= kTerminalEveryMs;
    const bool toJournal = m_journal && now - m_lastJournal >= kJournalEveryMs;
    if (!toTerminal && !toJournal)
        return;
    const ZvAString text = Describe(m_what.c_str(), done, m_total, now - m_start);
    if (toTerminal) {
        // "\033[K" clears what a longer line before left at its end.
        fprintf(m_terminal, "\r%s\033[K", text.c_str());
        fflush(m_terminal);
        m_lastTerminal = now;
        m_shown = true;
    }
    if (toJournal) {
        m_journal(text.c_str());
        m_lastJournal = now;
    }
}

void ZvProgress::Clear() {
    if (!m_shown)
        return;
    fputs("\r\033[K", m_terminal);
    fflush(m_terminal);
    m_shown = false;
}

void ZvProgress::Finish() {
    if (m_finished)
        return;
    m_finished = true;
    Clear();
}

ZvAString ZvProgress::Describe(const char* what, unsigned long long done, unsigned long long total,
                               unsigned long long elapsedMs) {
    const double rate = elapsedMs == 0 ? 0 : done * 1000.0 / elapsedMs;
    ZvAString text;
    if (total == 0) {
        text.Printf("%s: %.1f MiB, %.1f MiB/s", what, done / kMiB, rate / kMiB);
        return text;
    }
    text.Printf("%s: %.1f of %.1f MiB (%llu%%), %.1f MiB/s", what, done / kMiB, total / kMiB,
                done >= total ? 100ULL : done * 100 / total, rate / kMiB);
    if (rate > 0 && done < total) {
        const unsigned long long left =
            static_cast<unsigned long long>((total - done) / rate + 0.5);
        text.AddPrintf(", %llu:%02llu left", left / 60, left % 60);
    }
    return text;
}

FILE* ZvProgress::TerminalOrNull(int verbosity, bool isTerminal) {
    return verbosity >= kDefaultVerbosity && isTerminal ? stderr : nullptr;
}

FILE* ZvProgress::TerminalOrNull(int verbosity) {
    return TerminalOrNull(verbosity, isatty(STDERR_FILENO) == 1);
}

unsigned long long ZvProgress::SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}
