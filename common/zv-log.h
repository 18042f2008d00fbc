// ZvLog: the process-wide diagnostic channel. Six levels, one threshold, one installed logger.
// A message above the threshold, or any message while no logger is installed, costs one
// comparison and is never formatted.
#pragma once

#include <cstdarg>
#include <ctime>

#include "zv-string-ascii.h"

#define ZV_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))

class ZvLog {
public:
    enum Level {
        LevelAssert = 1,
        LevelError = 2,
        LevelWarning = 3,
        LevelStatus = 4,
        LevelDebug = 5,
        LevelTrace = 6
    };

    // One accepted message; heap-allocated and owned by the logger once handed to DoLog.
    struct Info {
        Level level = LevelError;
        void* object = nullptr;
        ZvAString function;
        ZvAString message;
        time_t time = 0;
    };

    ZvLog() = default;
    // The base logger discards the record.
    virtual void DoLog(Info* info) { delete info; }
    virtual ~ZvLog() = default;

    // Installs the process-wide logger (not owned); null re-installs the discarding one.
    // Meant to be called while only one thread runs.
    static void SetLogger(ZvLog* logger);
    static ZvLog* GetLogger() { return m_logger; }

    static void Assert(const char* format, ...) ZV_PRINTF(1, 2);
    static void Error(const char* format, ...) ZV_PRINTF(1, 2);
    static void Warning(const char* format, ...) ZV_PRINTF(1, 2);
    static void Status(const char* format, ...) ZV_PRINTF(1, 2);
    static void Debug(const char* format, ...) ZV_PRINTF(1, 2);
    static void Trace(const char* format, ...) ZV_PRINTF(1, 2);
    static void AssertEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);
    static void ErrorEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);
    static void WarningEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);
    static void StatusEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);
    static void DebugEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);
    static void TraceEx(void* object, const char* function, const char* format, ...)
        ZV_PRINTF(3, 4);

    static void Process(Level level, void* object, const char* function, const char* format,
                        va_list args);

    // The threshold: a message passes when its level is at most this value (initially Status).
    static int m_level;

private:
    static ZvLog* m_logger;
};

// Writes each line of a message to standard error behind a fixed prefix and the level's prefix.
class ZvLogStderr : public ZvLog {
public:
    explicit ZvLogStderr(const char* prefix = "") : m_prefix(prefix) {}
    void DoLog(Info* info) override;
    void HandleOutput(ZvAString& line, Info* info);

protected:
    ZvAString m_prefix;
};

// As ZvLogStderr, with the millisecond tick in front of the first line of each message.
class ZvLogStderrMs : public ZvLogStderr {
public:
    using ZvLogStderr::ZvLogStderr;
    void DoLog(Info* info) override;
};
