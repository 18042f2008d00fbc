#include "zv-string-ascii.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

const char* const kZvWhitespace = " \t\f\v\r\n";

ZvAString& ZvAString::operator=(const char* text) {
    if (text == nullptr)
        clear();
    else
        assign(text);
    return *this;
}

bool ZvAString::StartsWith(const char* prefix, const char** rest) const {
    size_t n = prefix == nullptr ? 0 : strlen(prefix);
    if (n > size() || (n > 0 && compare(0, n, prefix) != 0))
        return false;
    if (rest != nullptr)
        *rest = c_str() + n;
    return true;
}

bool ZvAString::StartsWith(const char* prefix, ZvAString& rest) const {
    const char* after = nullptr;
    if (!StartsWith(prefix, &after))
        return false;
    rest = after;
    return true;
}

bool ZvAString::EndsWith(const char* suffix, ZvAString* head) const {
    size_t n = suffix == nullptr ? 0 : strlen(suffix);
    if (n > size() || (n > 0 && compare(size() - n, n, suffix) != 0))
        return false;
    if (head != nullptr)
        head->assign(*this, 0, size() - n);
    return true;
}

int ZvAString::Vprintf(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int needed = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (needed < 0) {
        clear();
        return needed;
    }
    const size_t bufferSize = static_cast<size_t>(needed) + 2;
    char* buffer = static_cast<char*>(malloc(bufferSize));
    if (buffer == nullptr) {
        clear(); // no memory for the text: an empty result rather than an abort
        return 0;
    }
    int written = vsnprintf(buffer, bufferSize, format, args);
    assign(buffer, written < 0 ? 0 : static_cast<size_t>(written));
    free(buffer);
    return written;
}

int ZvAString::Printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = Vprintf(format, args);
    va_end(args);
    return n;
}

void ZvAString::AddPrintf(const char* format, ...) {
    ZvAString extra;
    va_list args;
    va_start(args, format);
    extra.Vprintf(format, args);
    va_end(args);
    append(extra);
}

ZvAString& ZvAString::Trim() {
    size_type last = find_last_not_of(kZvWhitespace);
    if (last == npos) {
        clear();
        return *this;
    }
    erase(last + 1);
    erase(0, find_first_not_of(kZvWhitespace));
    return *this;
}

void ZvAString::RemoveQuotes(bool trim) {
    if (trim)
        Trim();
    for (char quote : {'\'', '"'}) {
        if (!empty() && front() == quote && back() == quote) {
            pop_back();
            if (!empty())
                erase(0, 1);
        }
    }
}

bool ZvAString::GetNameAndValue(ZvAString* name, ZvAString* value, bool removeQuotes) const {
    if (name != nullptr)
        name->clear();
    if (value != nullptr)
        value->clear();
    size_type equals = rfind('=');
    if (equals == npos)
        return false;
    if (name != nullptr) {
        name->assign(*this, 0, equals);
        name->Trim();
    }
    if (value != nullptr) {
        value->assign(*this, equals + 1, npos);
        value->Trim();
        if (removeQuotes)
            value->RemoveQuotes(false);
    }
    return true;
}

void ZvAString::Replace(const char* from, const char* to) {
    if (from == nullptr || *from == 0)
        return;
    if (to == nullptr)
        to = "";
    size_t fromLength = strlen(from);
    size_t toLength = strlen(to);
    size_type position = find(from);
    while (position != npos) {
        replace(position, fromLength, to);
        position = find(from, position + toLength);
    }
}

ZvAString& ZvAString::ToUpper() {
    for (char& c : *this)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return *this;
}

ZvAString& ZvAString::ToLower() {
    for (char& c : *this)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return *this;
}

ZvAString::size_type ZvAString::IndexI(const char* what, unsigned start) const {
    ZvAString haystack(*this);
    ZvAString needle(what); // null searches for the empty text
    return haystack.ToUpper().find(needle.ToUpper(), start);
}

const char* ZvAString::FindI(const char* what, unsigned start) const {
    size_type position = IndexI(what, start);
    return position == npos ? nullptr : c_str() + position;
}

bool ZvAString::SaveToFile(const char* path) const {
    FILE* file = path == nullptr ? nullptr : fopen(path, "wb");
    if (file == nullptr)
        return false;
    if (!empty())
        fwrite(data(), 1, size(), file);
    fclose(file);
    return true;
}

bool ZvAString::LoadFromFile(const char* path) {
    FILE* file = path == nullptr ? nullptr : fopen(path, "rb");
    if (file == nullptr)
        return false;
    // A directory opens for reading, and some file systems report the largest offset as its
    // size: refuse it before allocating for that size.
    struct stat info;
    if (fstat(fileno(file), &info) != 0 || S_ISDIR(info.st_mode)) {
        fclose(file);
        return false;
    }
    fseek(file, 0, SEEK_END);
    long size = ftell(file);
    fseek(file, 0, SEEK_SET);
    // Allocated without aborting: a file too large to hold leaves the string unchanged.
    char* buffer = size > 0 ? static_cast<char*>(malloc(static_cast<size_t>(size))) : nullptr;
    if (size > 0 && buffer == nullptr) {
        fclose(file);
        return false;
    }
    const size_t got = buffer == nullptr ? 0 : fread(buffer, 1, static_cast<size_t>(size), file);
    fclose(file);
    assign(buffer == nullptr ? "" : buffer, got);
    free(buffer);
    return true;
}
