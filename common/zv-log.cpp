#include "zv-log.h"

#include <cstdio>

#include "zv-string-list-ascii.h"
#include "zv-time.h"

namespace {
ZvLog g_nullLogger;

const char* const kLevelPrefix[] = {
    "Assert: ", "Error: ", "Warning: ", "Status: ", "Debug: ", "Trace: "};
} // namespace

int ZvLog::m_level = ZvLog::LevelStatus;
ZvLog* ZvLog::m_logger = &g_nullLogger;

void ZvLog::SetLogger(ZvLog* logger) {
    m_logger = logger != nullptr ? logger : &g_nullLogger;
}

void ZvLog::Process(Level level, void* object, const char* function, const char* format,
                    va_list args) {
    if (m_logger == &g_nullLogger || static_cast<int>(level) > m_level)
        return;
    Info* info = new Info;
    info->level = level;
    info->object = object;
    if (function != nullptr)
        info->function = function;
    if (format != nullptr)
        info->message.Vprintf(format, args);
    info->time = time(nullptr);
    m_logger->DoLog(info);
}

#define ZV_LOG_LEVEL(Name, Level)                                                                  \
    void ZvLog::Name(const char* format, ...) {                                                    \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        Process(Level, nullptr, nullptr, format, args);                                            \
        va_end(args);                                                                              \
    }                                                                                              \
    void ZvLog::Name##Ex(void* object, const char* function, const char* format, ...) {            \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        Process(Level, object, function, format, args);                                            \
        va_end(args);                                                                              \
    }

ZV_LOG_LEVEL(Assert, LevelAssert)
ZV_LOG_LEVEL(Error, LevelError)
ZV_LOG_LEVEL(Warning, LevelWarning)
ZV_LOG_LEVEL(Status, LevelStatus)
ZV_LOG_LEVEL(Debug, LevelDebug)
ZV_LOG_LEVEL(Trace, LevelTrace)

void ZvLogStderr::DoLog(Info* info) {
    ZvAString line;
    HandleOutput(line, info);
}

void ZvLogStderr::HandleOutput(ZvAString& line, Info* info) {
    if (info->level >= LevelAssert && info->level <= LevelTrace) {
        line += kLevelPrefix[info->level - 1];
        line += info->message;
    }
    if (!line.empty()) {
        ZvAStringList lines;
        lines.AppendFromText(line.c_str());
        lines.TrimAll();
        for (unsigned i = 0; i < lines.Count(); ++i)
            if (!lines[i].empty())
                fprintf(stderr, "%s%s\n", m_prefix.c_str(), lines[i].c_str());
    }
    delete info;
}

void ZvLogStderrMs::DoLog(Info* info) {
    ZvAString line;
    line.Printf("%u: ", ZvTime::GetMsTickTime());
    HandleOutput(line, info);
}
