// ZvB64: Base64 with the RFC 4648 alphabet, '=' padding and no line breaks on output.
#pragma once

#include "zv-string-ascii.h"

// Builds the decode table once, before main, through one static instance.
class ZvB64Init {
public:
    ZvB64Init();

    static const char* const m_chars;
    // Indexed by input byte 0..254: 0..63 the value, -1 out of range, -2 ignored white space.
    static signed char m_values[255];

    static constexpr signed char kInvalid = -1;
    static constexpr signed char kSkip = -2;
};

class ZvB64 {
public:
    // Decodes `length` characters of `text` into `out` (bytes, possibly with NULs) and sets
    // `outLength`. White space is skipped; '=' ends the decode. On a character outside the
    // alphabet: false, `error` (when given) receives the message, and `out` keeps the bytes
    // decoded before it.
    static bool Decode(const char* text, int length, ZvAString& out, unsigned int& outLength,
                       ZvAString* error);
    static void Encode(const unsigned char* data, int length, ZvAString& out);
};
