// The host's end of a simulated port in these tests: opens the published path raw and reads.
#pragma once

#include "zsim-wire.h"

#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>

struct SimHost {
    int fd = -1;
    explicit SimHost(const std::string& path) {
        fd = open(path.c_str(), O_RDWR | O_NOCTTY);
        termios tio{};
        if (fd >= 0 && tcgetattr(fd, &tio) == 0) {
            cfmakeraw(&tio);
            tcsetattr(fd, TCSANOW, &tio);
        }
    }
    ~SimHost() { close(fd); }
    void Send(const zsim::Bytes& bytes) const {
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Reads until `count` bytes arrived, the port hangs up, or nothing comes for quietMs.
    zsim::Bytes Read(size_t count, int quietMs = 1000, bool* hungUp = nullptr) const {
        zsim::Bytes out;
        uint8_t buffer[8192];
        while (out.size() < count) {
            pollfd pfd{fd, POLLIN, 0};
            if (poll(&pfd, 1, quietMs) <= 0)
                break;
            ssize_t got = read(fd, buffer, std::min(sizeof buffer, count - out.size()));
            if (got <= 0) {
                if (hungUp)
                    *hungUp = true;
                break;
            }
            out.insert(out.end(), buffer, buffer + got);
        }
        return out;
    }
};
