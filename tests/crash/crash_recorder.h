// A crash check that records what it reports, for the crash tests.
#pragma once

#include <csignal>
#include <string>
#include <vector>

#include "zv-at-port-util.h"

// Set by a signal handler; the check's stop hook reads it.
inline volatile sig_atomic_t g_stopRequested = 0;

class RecordingCrash : public ZvAtCrash {
public:
    using ZvAtCrash::ZvAtCrash;
    void OnStatus(const char* text) override { statuses.push_back(text); }
    bool StopCheck() override { return g_stopRequested != 0; }

    std::vector<std::string> statuses;
};
