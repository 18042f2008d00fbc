// Extraction of a 2 MiB database over a pseudo-terminal, against the time the same bytes take to
// cross the same kind of pty raw.
//
// One responder thread plays the modem on the pty master for all three runs, so the writer is the
// same in each; the host side is the tool's serial interface (or the tool itself):
// - raw: the responder writes the exact byte stream of the exchange's answers (hash confirm and
//   data confirms) at once; the clock stops when the host has read it all;
// - extraction: ZlTgtDb on the serial interface, polled every millisecond, from the first request
//   to the file written; the responder answers each request with its part of the same stream;
// - tool: the real program with -e from start to exit; its wait loop polls every 200 ms, so this
//   figure includes process start, port opening and up to two polling steps.
// Each figure is the median of several runs, interleaved so that machine load hits all alike.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "zavra_log_tgt_db.h"
#include "zv-itf-serial.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;
const unsigned kDbSize = 2 * 1024 * 1024;
const unsigned kBase = 0x35;
const int kRuns = 11;    // raw and extraction runs each
const int kToolRuns = 5; // tool runs (about 0.7 s each)

double Ms(Clock::time_point from) {
    return std::chrono::duration<double, std::milli>(Clock::now() - from).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void Put(Bytes& out, unsigned value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

// A legacy record to KOR 1 with time 0.
void AddRecord(Bytes& out, unsigned id, const Bytes& body) {
    unsigned pad = (4 - body.size() % 4) % 4;
    unsigned words = static_cast<unsigned>((12 + body.size() + pad) / 4);
    Put(out, 0x807F807F);
    Put(out, 0);
    Put(out, words | (id | pad << 13 | 1u << 15) << 16);
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), pad, 0);
}

// The modem's answers: the hash confirm (hashPart bytes), then the data confirms.
struct Answers {
    Bytes stream;
    size_t hashPart = 0;
};

Answers MakeAnswers(const Bytes& db, unsigned chunkSize) {
    Answers a;
    Bytes body;
    Put(body, 0);
    Put(body, 0x5EED);
    Put(body, static_cast<unsigned>(db.size()));
    AddRecord(a.stream, kBase + 8, body);
    a.hashPart = a.stream.size();
    for (size_t at = 0; at < db.size(); at += chunkSize) {
        size_t n = std::min<size_t>(chunkSize, db.size() - at);
        body.clear();
        Put(body, 0);
        Put(body, at + n < db.size() ? 1 : 0);
        body.insert(body.end(), db.begin() + at, db.begin() + at + n);
        AddRecord(a.stream, kBase + 10, body);
    }
    return a;
}

// The modem end of a fresh pty: answers the hash and data requests with its part of the answer
// stream, or writes the whole stream when told to.
class Responder {
public:
    explicit Responder(const Answers& answers) : m_answers(answers) {
        int slave = -1;
        char name[256];
        if (openpty(&m_master, &slave, name, nullptr, nullptr) == 0) {
            m_path = name;
            close(slave);
            m_thread = std::thread([this] { Serve(); });
        }
    }
    ~Responder() {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
        close(m_master);
    }
    const std::string& Path() const { return m_path; }
    void WriteAll() { Write(0, m_answers.stream.size()); }

private:
    void Write(size_t from, size_t to) {
        while (from < to && !m_stop) {
            ssize_t n = write(m_master, m_answers.stream.data() + from, to - from);
            if (n > 0) {
                from += static_cast<size_t>(n);
            } else {
                pollfd pfd = {m_master, POLLOUT, 0};
                poll(&pfd, 1, 10);
            }
        }
    }
    void Serve() {
        Bytes in;
        unsigned char buffer[4096];
        while (!m_stop) {
            pollfd pfd = {m_master, POLLIN, 0};
            if (poll(&pfd, 1, 10) <= 0) {
                continue;
            }
            ssize_t n = read(m_master, buffer, sizeof buffer);
            if (n <= 0) {
                usleep(1000); // no host on the slave side yet
                continue;
            }
            in.insert(in.end(), buffer, buffer + n);
            // Requests and close messages are legacy records; the id picks the answer.
            while (in.size() >= 12) {
                size_t size = static_cast<size_t>(in[8] | in[9] << 8) * 4;
                if (in.size() < size) {
                    break;
                }
                unsigned id = in[10] | (in[11] & 0x1F) << 8;
                in.erase(in.begin(), in.begin() + static_cast<long>(std::max<size_t>(size, 12)));
                if (id == kBase + 7) {
                    Write(0, m_answers.hashPart);
                } else if (id == kBase + 9) {
                    Write(m_answers.hashPart, m_answers.stream.size());
                }
            }
        }
    }

    const Answers& m_answers;
    int m_master = -1;
    std::string m_path;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class CountingHandler : public ZvItfAsyncRxHandlers {
public:
    void OnRxData(unsigned int count, unsigned char*) override { bytes += count; }
    void OnRxFail() override {}
    std::atomic<size_t> bytes{0};
};

class BenchTgtDb : public ZlTgtDb, public ZvItfAsyncRxHandlers {
public:
    explicit BenchTgtDb(ZvItfAsyncSerial& port) : m_port(port) {}
    void Send(unsigned int size, unsigned char* data) override { m_port.Send(size, data); }
    void OnRxData(unsigned int count, unsigned char* data) override { OnNewData(data, count); }
    void OnRxFail() override {}

private:
    ZvItfAsyncSerial& m_port;
};

bool SameAsFile(const std::string& path, const Bytes& db) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) == db;
}

double RawRun(const Answers& answers) {
    Responder modem(answers);
    CountingHandler handler;
    ZvItfAsyncSerial port;
    port.SetPortName(modem.Path().c_str());
    port.SetRxHandler(&handler);
    if (!port.OnOpen()) {
        return -1;
    }
    Clock::time_point start = Clock::now();
    std::thread writer([&] { modem.WriteAll(); });
    while (handler.bytes < answers.stream.size() && Ms(start) < 30000) {
        usleep(1000);
    }
    double ms = Ms(start);
    writer.join();
    port.OnClose();
    return handler.bytes == answers.stream.size() ? ms : -1;
}

double ExtractionRun(const Answers& answers, const Bytes& db, const std::string& output) {
    Responder modem(answers);
    ZvItfAsyncSerial port;
    BenchTgtDb extractor(port);
    port.SetPortName(modem.Path().c_str());
    port.SetRxHandler(&extractor);
    if (!extractor.Configure(output.c_str(), kBase) || !port.OnOpen()) {
        return -1;
    }
    Clock::time_point start = Clock::now();
    int progress = 0;
    while ((progress = extractor.CheckProgress()) == 0) {
        usleep(1000);
    }
    double ms = Ms(start);
    port.OnClose();
    return progress == 2 && SameAsFile(output, db) ? ms : -1;
}

double ToolRun(const Answers& answers, const Bytes& db, const std::string& output) {
    Responder modem(answers);
    std::string cmd = std::string("'") + ZAVRA_LOG_SERIAL_PATH + "' -v1 -d'" + modem.Path() +
                      "' -e'" + output + "' 2>/dev/null";
    Clock::time_point start = Clock::now();
    int status = system(cmd.c_str());
    double ms = Ms(start);
    return status == 0 && SameAsFile(output, db) ? ms : -1;
}

} // namespace

int main() {
    char pattern[] = "/tmp/tgtdb_bench_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        return 1;
    }
    const std::string output = std::string(pattern) + "/out.zx";
    Bytes db(kDbSize);
    unsigned x = 12345;
    for (auto& b : db) {
        x = x * 1103515245u + 12345;
        b = static_cast<unsigned char>(x >> 16);
    }

    printf("Database extraction of %u bytes over a pty (medians of %d runs, tool %d runs)\n",
           kDbSize, kRuns, kToolRuns);
    int result = 0;
    for (unsigned chunkSize : {2048u, 20472u}) {
        Answers answers = MakeAnswers(db, chunkSize);
        std::vector<double> raw, extraction, tool;
        for (int i = 0; i < kRuns; ++i) {
            raw.push_back(RawRun(answers));
            extraction.push_back(ExtractionRun(answers, db, output));
            if (i < kToolRuns) {
                tool.push_back(ToolRun(answers, db, output));
            }
        }
        if (std::min({*std::min_element(raw.begin(), raw.end()),
                      *std::min_element(extraction.begin(), extraction.end()),
                      *std::min_element(tool.begin(), tool.end())}) < 0) {
            fprintf(stderr, "a run failed\n");
            result = 1;
            break;
        }
        double r = Median(raw), e = Median(extraction), t = Median(tool);
        double mb = static_cast<double>(answers.stream.size()) / 1e3; // bytes per ms -> MB/s
        printf("data records of %5u bytes, %zu bytes on the wire\n", chunkSize,
               answers.stream.size());
        printf("  raw transfer     %8.1f ms  %7.1f MB/s\n", r, mb / r);
        printf("  extraction       %8.1f ms  %7.1f MB/s  ratio %.2f\n", e, mb / e, e / r);
        printf("  tool end to end  %8.1f ms  %7.1f MB/s  ratio %.2f\n", t, mb / t, t / r);
    }
    std::string cleanup = std::string("rm -rf '") + pattern + "'";
    return system(cleanup.c_str()) == 0 ? result : 1;
}
