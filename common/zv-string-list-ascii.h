// ZvAStringList: an ordered list of owned strings with line-oriented file input and output and a
// delimiter splitter.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <vector>

#include "zv-string-ascii.h"

template <class Base, class Str, class Char>
class ZvStringListT {
public:
    ZvStringListT() = default;
    ZvStringListT(const ZvStringListT& other) { *this = other; }
    ZvStringListT& operator=(const ZvStringListT& other) {
        if (this != &other) {
            Clear();
            for (const Str* item : other.m_items)
                Add(*item);
        }
        return *this;
    }
    ~ZvStringListT() { Clear(); }

    unsigned Count() const { return static_cast<unsigned>(m_items.size()); }
    bool Empty() const { return m_items.empty(); }
    // An index out of range yields the text "ZvStringList index error." instead of failing.
    Str& operator[](unsigned index) {
        return index < m_items.size() ? *m_items[index] : m_indexError;
    }
    const Str& operator[](unsigned index) const {
        return index < m_items.size() ? *m_items[index] : m_indexError;
    }

    Str& Add(const Char* text) { return Add(Str(text)); }
    Str& Add(const Base& text) {
        m_items.push_back(new Str(text));
        return *m_items.back();
    }
    void Insert(unsigned index, const Base& text) {
        if (index > m_items.size())
            index = static_cast<unsigned>(m_items.size());
        m_items.insert(m_items.begin() + index, new Str(text));
    }
    void Remove(unsigned index) {
        if (index < m_items.size()) {
            delete m_items[index];
            m_items.erase(m_items.begin() + index);
        }
    }
    void Clear() {
        for (Str* item : m_items)
            delete item;
        m_items.clear();
    }

    // Splits at every delimiter; empty pieces are kept and nothing is trimmed.
    void SetDelimited(const Char* text, Char delimiter) {
        Clear();
        Str whole(text == nullptr ? "" : text);
        if (whole.empty())
            return;
        size_t start = 0;
        for (size_t found = whole.find(delimiter); found != Str::npos;
             found = whole.find(delimiter, start)) {
            Add(whole.substr(start, found - start));
            start = found + 1;
        }
        Add(whole.substr(start));
    }

    void TrimAll() {
        for (Str* item : m_items)
            item->Trim();
    }
    void RemoveEmptyLines() {
        for (unsigned i = Count(); i-- > 0;)
            if (m_items[i]->empty())
                Remove(i);
    }

    bool SaveToFile(const Char* path) const { return WriteLines(path, "wt"); }
    bool AppendToFile(const Char* path) const { return WriteLines(path, "at"); }

    // Appends the lines of an open file and closes it. CR LF, lone CR and lone LF each end a line;
    // LF CR ends one line and starts an empty one; a NUL ends the text.
    bool AppendFromFile(FILE* file) {
        if (file == nullptr) {
            Clear();
            Add("Could not open file");
            return false;
        }
        bool ok = AppendLines(file);
        fclose(file);
        return ok;
    }
    bool AppendFromFile(const Base& path) { return AppendFromFile(fopen(path.c_str(), "rb")); }
    bool LoadFromFile(const Base& path) {
        Clear();
        return AppendFromFile(path);
    }

    // Appends the lines of a text held in memory, split by the same rule as the file forms.
    void AppendFromText(const Char* text) {
        const Char* p = text;
        while (*p != 0) {
            const Char* end = p;
            while (*end != 0 && *end != '\n' && *end != '\r')
                ++end;
            Add(Base(p, static_cast<size_t>(end - p)));
            if (*end == 0)
                break;
            p = end + 1;
            if (*end == '\r' && *p == '\n')
                ++p;
        }
    }

private:
    bool WriteLines(const Char* path, const char* mode) const {
        FILE* file = path == nullptr ? nullptr : fopen(path, mode);
        if (file == nullptr)
            return false;
        for (const Str* item : m_items) {
            fwrite(item->data(), 1, item->size(), file);
            fputc('\n', file);
        }
        fclose(file);
        return true;
    }

    bool AppendLines(FILE* file) {
        // A directory opens for reading, and some file systems report the largest offset as
        // its size: refuse it before allocating for that size.
        struct stat info;
        if (fstat(fileno(file), &info) != 0 || S_ISDIR(info.st_mode))
            return false;
        if (fseek(file, 0, SEEK_END) != 0)
            return false;
        long size = ftell(file);
        if (size == 0)
            return true;
        if (size < 0)
            return false;
        fseek(file, 0, SEEK_SET);
        // Allocated without aborting: a size that cannot be held is a failed read.
        const size_t length = static_cast<size_t>(size);
        Char* buffer = length < SIZE_MAX / sizeof(Char)
                           ? static_cast<Char*>(calloc(length + 1, sizeof(Char)))
                           : nullptr;
        if (buffer == nullptr)
            return false;
        const bool whole = fread(buffer, sizeof(Char), length, file) == length;
        if (whole)
            AppendFromText(buffer);
        free(buffer);
        return whole;
    }

    std::vector<Str*> m_items;

public:
    static Str m_indexError;
};

template <class Base, class Str, class Char>
Str ZvStringListT<Base, Str, Char>::m_indexError("ZvStringList index error.");

using ZvAStringList = ZvStringListT<std::string, ZvAString, char>;
