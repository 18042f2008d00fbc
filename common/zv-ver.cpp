#include "zv-ver.h"

#include <cstdlib>
#include <strings.h>
#include <vector>

namespace {
// Splits at white space; text inside single or double quotes stays one word.
std::vector<ZvAString> SplitWords(const ZvAString& text) {
    std::vector<ZvAString> words;
    ZvAString word;
    char quote = 0;
    bool inWord = false;
    for (char c : text) {
        if (quote != 0) {
            if (c == quote)
                quote = 0;
            else
                word += c;
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v') {
            if (inWord)
                words.push_back(word);
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord)
        words.push_back(word);
    return words;
}

unsigned MonthValue(const ZvAString& word) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (unsigned i = 0; i < 12; ++i)
        if (strcasecmp(word.c_str(), kMonths[i]) == 0)
            return 40 * (i + 1);
    return 40; // an unknown month counts as January, on purpose
}
} // namespace

ZvVer::ZvVer(unsigned major, unsigned minor, const char* buildDate)
    : m_major(major), m_minor(minor), m_build(0), m_date(buildDate) {
    std::vector<ZvAString> words = SplitWords(m_date);
    unsigned month = words.empty() ? 0 : MonthValue(words[0]);
    unsigned day =
        words.size() < 2 ? 0 : static_cast<unsigned>(strtoul(words[1].c_str(), nullptr, 10));
    unsigned year = 0;
    if (words.size() >= 3) {
        unsigned long y = strtoul(words[2].c_str(), nullptr, 10);
        year = static_cast<unsigned>((y * 480 + 21120) % 65536);
    }
    m_build = (year + month + day) % 65536;
}

void ZvVer::GetFullVersionString(ZvAString& out) const {
    out.Printf("Version %u.%u.%04u (%s)", m_major, m_minor, m_build, m_date.c_str());
}

void ZvVer::GetNumberString(ZvAString& out) const {
    out.Printf("%u.%u.%04u", m_major, m_minor, m_build);
}

void ZvVer::StripExtraSpaces(ZvAString& text) {
    ZvAString result;
    for (char c : text)
        if (c != ' ' || result.empty() || result.back() != ' ')
            result += c;
    text.swap(result);
}
