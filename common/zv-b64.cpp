#include "zv-b64.h"

const char* const ZvB64Init::m_chars =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
signed char ZvB64Init::m_values[255];

ZvB64Init::ZvB64Init() {
    for (signed char& value : m_values)
        value = kInvalid;
    for (int i = 0; i < 64; ++i)
        m_values[static_cast<unsigned char>(m_chars[i])] = static_cast<signed char>(i);
    for (unsigned char space : {'\t', '\n', '\r', ' '})
        m_values[space] = kSkip;
}

namespace {

const ZvB64Init g_b64Init;

// The table value of an input byte; byte 255 lies outside the table and is out of range.
signed char ValueOf(unsigned char c) {
    return c < sizeof(ZvB64Init::m_values) ? ZvB64Init::m_values[c] : ZvB64Init::kInvalid;
}

} // namespace

bool ZvB64::Decode(const char* text, int length, ZvAString& out, unsigned int& outLength,
                   ZvAString* error) {
    outLength = 0;
    if (text == nullptr || length <= 0) {
        out.clear();
        return true;
    }
    out.assign(static_cast<size_t>(length) + 3, '\0');
    auto isPad = [&](int at) { return at < length && text[at] == '='; };
    auto emit = [&](unsigned value) {
        if (outLength < out.size())
            out[outLength++] = static_cast<char>(value & 0xFF);
    };

    bool ok = true;
    int pos = 0;
    while (ok && pos < length) {
        const int groupStart = pos;
        unsigned values[4];
        int count = 0;
        while (count < 4) {
            // White space after the last group ends the text rather than adding a zero group.
            if (count == 0 && pos >= length)
                break;
            if (pos >= length || text[pos] == '=') {
                values[count++] = 0;
                ++pos;
                continue;
            }
            const unsigned char c = static_cast<unsigned char>(text[pos]);
            const signed char value = ValueOf(c);
            if (value == ZvB64Init::kInvalid) {
                if (error != nullptr)
                    error->Printf(
                        "Base 64 decode error. An input character is out of range 0x02X '%c'.", c);
                ok = false;
                break;
            }
            ++pos;
            if (value != ZvB64Init::kSkip)
                values[count++] = static_cast<unsigned>(value);
        }
        if (!ok || count == 0)
            break;

        emit((values[0] << 2) | (values[1] >> 4));
        // The padding tests look at fixed offsets from the group's first character.
        if (isPad(groupStart + 2))
            break;
        emit((values[1] << 4) | (values[2] >> 2));
        if (isPad(groupStart + 3))
            break;
        emit((values[2] << 6) | values[3]);
    }
    out.resize(outLength);
    return ok;
}

void ZvB64::Encode(const unsigned char* data, int length, ZvAString& out) {
    out.clear();
    if (data == nullptr || length <= 0)
        return;
    out.resize(static_cast<size_t>(length / 3) * 4 + 5);
    const char* const chars = ZvB64Init::m_chars;
    size_t written = 0;
    for (int i = 0; i < length; i += 3) {
        const bool has1 = i + 1 < length;
        const bool has2 = i + 2 < length;
        const unsigned b0 = data[i];
        const unsigned b1 = has1 ? data[i + 1] : 0;
        const unsigned b2 = has2 ? data[i + 2] : 0;
        out[written++] = chars[b0 >> 2];
        out[written++] = chars[((b0 & 3) << 4) | (b1 >> 4)];
        out[written++] = has1 ? chars[((b1 & 15) << 2) | (b2 >> 6)] : '=';
        out[written++] = has2 ? chars[b2 & 63] : '=';
    }
    out.resize(written);
}
