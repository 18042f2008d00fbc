// ZvAtCoreDumpReader: cuts the full core dump out of the bytes that follow "at%debug=2,1\r". The
// target first sends some text, then either a header ("start of external ram content, start
// address=..., size in bytes=N:\r\n") followed by N bytes of the image, or a marker saying that no
// dump is coming. Chunks go straight to the file; only the text before the header is kept.
//
// The dump is data from outside and may be anything: a dump that would take more than the room
// given (announced so, or growing past it) is not written (or no further) and is to be dropped,
// and one that stops before its announced size is incomplete; either way the rest of what comes
// is read and dropped.
#pragma once

#include <cstddef>
#include <functional>

#include "zv-string-ascii.h"

class ZvFile;

class ZvAtCoreDumpReader {
public:
    enum class State { Searching, Copying, Draining, Ended };
    // Why the reader ended while searching, or that the dump did not fit.
    enum class Outcome { None, DumpError, NoDumpAvailable, NoNewDumpAvailable, TooLarge };

    // `limit`: the most bytes the dump may take in the file (0: no limit). `onSize` is told the
    // announced size of a dump that fits, before its first byte is written.
    explicit ZvAtCoreDumpReader(ZvFile& file, unsigned long long limit = 0,
                                std::function<void(unsigned long long)> onSize = nullptr)
        : m_file(file), m_limit(limit), m_onSize(std::move(onSize)) {}

    // Takes one received chunk. Status texts are left in `status` (empty when there is none) for
    // the caller to report, in the order they arose, one a line.
    void OnChunk(const unsigned char* chunk, unsigned length, ZvAString& status);

    State GetState() const { return m_state; }
    Outcome GetOutcome() const { return m_outcome; }
    // False once the dump was cut out by its size header.
    bool IsRaw() const { return m_raw; }
    // Still copying a dump whose announced size has not all arrived: when the target falls silent
    // now, the dump is cut short.
    bool IsIncomplete() const;
    // The announced size (of a dump with a size header) and the bytes written so far.
    unsigned Announced() const { return m_announced; }
    unsigned long long Written() const { return m_written; }
    // The searching text held now (for tests of its bound).
    size_t SearchTextSize() const { return m_search.size(); }

    // While searching the text only grows until a marker is found. A target that never sends one
    // must not grow it without limit: past kSearchLimit bytes only the last kSearchKeep bytes are
    // kept. The kept tail is longer than any marker, so a marker cut between two chunks is still
    // found, and the limit is far beyond the few hundred bytes of text a target sends first.
    static constexpr size_t kSearchLimit = 64 * 1024;
    static constexpr size_t kSearchKeep = 1024;

private:
    void Search(const unsigned char* chunk, unsigned length, ZvAString& status);
    void StartCopying(const unsigned char* chunk, unsigned length, ZvAString& status);
    void Copy(const unsigned char* chunk, unsigned length, ZvAString& status);
    // Writes unless the dump would then exceed the limit; then it is dropped from here on.
    void Write(const unsigned char* data, unsigned length, ZvAString& status);

    ZvFile& m_file;
    unsigned long long m_limit;
    std::function<void(unsigned long long)> m_onSize;
    State m_state = State::Searching;
    Outcome m_outcome = Outcome::None;
    bool m_raw = true;
    unsigned m_remaining = 0; // wraps on purpose when the first chunk holds more than announced
    bool m_wrapped = false;
    unsigned m_announced = 0;
    unsigned long long m_written = 0;
    ZvAString m_search;
};
