// error() and usage(): the two ways the command line ends the process early.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "zavra_log_serial_args.h"
#include "zv-ver.h"

int noisiness = 2;

void error(Local_Errors code, int info, const char* format, ...) {
    fprintf(stderr, "Error %d(%d):", info, static_cast<int>(code));
    if (format == nullptr) {
        fputs("(no additional info)", stderr);
    } else {
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
    }
    fputc('\n', stderr);
    exit(info);
}

void usage() {
    ZvVer version(1, 8);
    ZvAString banner;
    version.GetFullVersionString(banner);
    fprintf(stderr, "zavra_log_serial, %s\n", banner.c_str());
    fprintf(
        stderr,
        "This tool is used to receive a merged OS message stream from a serial port. The \n"
        "stream data can be saved to a file or sent to a socket (or both).\n"
        "\n"
        "zavra_log_serial [Options] [<filename_root>]\n"
        "\n"
        " Options:\n"
        "  -a<od>,<ts>,<fs>  Daemon mode: keep date-named log files in the output directory\n"
        "                    <od>, at most <ts> MBytes in total (0 or absent: no limit), split\n"
        "                    into files of <fs> MBytes (absent: one eighth of <ts>).\n"
        "                    <filename_root> is ignored.\n"
        "  -b                Do not flush the target's log buffers at start.\n"
        "  -c<id>            Open channel message id (default %u); the other message ids\n"
        "                    follow from it.\n"
        "  -d<device>        The serial port to log from, e.g. -d/dev/mux.ttyACM0/qorvi\n"
        "  -e<db_file>       Extract the target's embedded database into <db_file> (extension\n"
        "                    '.zx') and exit. -a, -b, -o, -p, -s and <filename_root> are\n"
        "                    ignored and the crash check is off.\n"
        "  -f                Daemon mode: keep the first segment of every log.\n"
        "  -h                Print this help.\n"
        "  -m<ms>            Stop logging after <ms> milliseconds.\n"
        "  -o                Only open and close the port (to check its configuration).\n"
        "  -p[<port>]        Serve the stream to one TCP client on <port> (default %u) and\n"
        "                    pass the client's data down to the target. Outside daemon mode\n"
        "                    the tool waits for the client first. The number must follow\n"
        "                    the letter without a blank.\n"
        "  -p<addr>:<port>   The same on one address only, e.g. -p127.0.0.1:32768 (IPv6 in\n"
        "                    brackets: -p[::1]:32768); without one, every address.\n"
        "                    One client at a time: in daemon mode a second client's connection\n"
        "                    is taken but gets nothing until the first has left, and a client\n"
        "                    that reconnects at once may wait about a second to get in.\n"
        "  -r1,<bp>,<to>     Enable deferred logging: the target sends its logs when its\n"
        "                    buffer is <bp> percent full or after <to> seconds\n"
        "                    (defaults %u and %u).\n"
        "  -r0               Disable deferred logging (the default).\n"
        "  -s<zos_file>      Send the given ZOS script.\n"
        "  -t                Disable the target crash check when a part failure is detected.\n"
        "  -v<n>             Verbosity (default 2): above 1 statistics, above 4 progress.\n"
        "  -x                Daemon mode: exit when the port fails instead of waiting for it.\n"
        "\n"
        " <filename> is the optional file to save the merged stream to. It should have a\n"
        " \".zom\" extension, so that other tools know it is a merged OS message stream.\n",
        53u, ZlbsArgData::kDefaultSocketPort, 50u, 60u);
    exit(0);
}
