// ZvAtCoreDumpReader: cuts the full core dump out of the bytes that follow "at%debug=2,1\r". The
// target first sends some text, then either a header ("start of external ram content, start
// address=..., size in bytes=N:\r\n") followed by N bytes of the image, or a marker saying that no
// dump is coming. Chunks go straight to the file; only the text before the header is kept.
#pragma once

#include <cstddef>

#include "zv-string-ascii.h"

class ZvFile;

class ZvAtCoreDumpReader {
public:
    enum class State { Searching, Copying, Draining, Ended };
    // Why the reader ended while searching.
    enum class Outcome { None, DumpError, NoDumpAvailable, NoNewDumpAvailable };

    explicit ZvAtCoreDumpReader(ZvFile& file) : m_file(file) {}

    // Takes one received chunk. Status texts are left in `status` (empty when there is none) for
    // the caller to report, in the order they arose.
    void OnChunk(const unsigned char* chunk, unsigned length, ZvAString& status);

    State GetState() const { return m_state; }
    Outcome GetOutcome() const { return m_outcome; }
    // False once the dump was cut out by its size header.
    bool IsRaw() const { return m_raw; }
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
    void Copy(const unsigned char* chunk, unsigned length);

    ZvFile& m_file;
    State m_state = State::Searching;
    Outcome m_outcome = Outcome::None;
    bool m_raw = true;
    unsigned m_remaining = 0; // wraps on purpose when the first chunk holds more than announced
    ZvAString m_search;
};
