#include "crash_zip_reader.h"

#include "zavra_test_process.h"

#include <cstdio>

namespace crash_test {

namespace {

std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string Hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes)
        hex += {digits[c >> 4], digits[c & 15]};
    return hex;
}

// Runs python3 with `script` and `args`; its standard output, and true when it exited with 0.
bool Python(const char* script, const std::vector<std::string>& args, std::string& output) {
    std::string command = "python3 -c " + Quoted(script);
    for (const std::string& arg : args)
        command += " " + Quoted(arg);
    return zavra_test::Shell(command, output) == 0;
}

} // namespace

bool ReadZip(const std::string& path, std::map<std::string, std::string>& entries) {
    const char* script = "import sys, zipfile\n"
                         "z = zipfile.ZipFile(sys.argv[1])\n"
                         "if z.testzip(): sys.exit(1)\n"
                         "for i in z.infolist(): print(i.filename, z.read(i).hex())\n";
    std::string output;
    entries.clear();
    if (!Python(script, {path}, output))
        return false;
    for (size_t start = 0, end; (end = output.find('\n', start)) != std::string::npos;
         start = end + 1) {
        const size_t space = output.rfind(' ', end);
        std::string& data = entries[output.substr(start, space - start)];
        for (size_t i = space + 1; i + 1 < end; i += 2)
            data += static_cast<char>(std::stoi(output.substr(i, 2), nullptr, 16));
    }
    return true;
}

std::string Base64Lines(const std::string& data) {
    const char* script = "import sys, base64\n"
                         "sys.stdout.write(base64.encodebytes(bytes.fromhex(sys.argv[1]))\n"
                         "                 .decode().replace('\\n', '\\r\\n'))\n";
    std::string output;
    return Python(script, {Hex(data)}, output) ? output : "";
}

bool WriteZip(const std::string& path, const std::map<std::string, std::string>& entries) {
    const char* script = "import sys, zipfile\n"
                         "with zipfile.ZipFile(sys.argv[1], 'w') as z:\n"
                         "    for name, data in zip(sys.argv[2::2], sys.argv[3::2]):\n"
                         "        z.writestr(zipfile.ZipInfo(bytes.fromhex(name).decode()),\n"
                         "                   bytes.fromhex(data))\n";
    std::vector<std::string> args = {path};
    for (const auto& [name, data] : entries)
        args.insert(args.end(), {Hex(name), Hex(data)});
    std::string output;
    return Python(script, args, output);
}

bool WriteTargetZip(const std::string& path) {
    FILE* pipe = popen(("base64 -d > " + Quoted(path)).c_str(), "w");
    if (pipe == nullptr)
        return false;
    fputs(kTargetZipBase64, pipe);
    return pclose(pipe) == 0;
}

const char* const kTargetZipBase64 =
    "UEsDBBQAAAAIAACwd11wWvx5IAAAAB4AAAANAAAAYmJfZXZlbnRzLnR4dCtJLEpP\n"
    "LVFILUvNKym2UkgsLk4tKlHIzFPIzi8y5AIAUEsDBBQAAAAAAACwd11zjAUpAAEA\n"
    "AAABAAAIAAAAcmVncy5iaW4AAQIDBAUGBwgJCgsMDQ4PEBESExQVFhcYGRobHB0e\n"
    "HyAhIiMkJSYnKCkqKywtLi8wMTIzNDU2Nzg5Ojs8PT4/QEFCQ0RFRkdISUpLTE1O\n"
    "T1BRUlNUVVZXWFlaW1xdXl9gYWJjZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXp7fH1+\n"
    "f4CBgoOEhYaHiImKi4yNjo+QkZKTlJWWl5iZmpucnZ6foKGio6SlpqeoqaqrrK2u\n"
    "r7CxsrO0tba3uLm6u7y9vr/AwcLDxMXGx8jJysvMzc7P0NHS09TV1tfY2drb3N3e\n"
    "3+Dh4uPk5ebn6Onq6+zt7u/w8fLz9PX29/j5+vv8/f7/UEsBAhQDFAAAAAgAALB3\n"
    "XXBa/HkgAAAAHgAAAA0AAAAAAAAAAAAAAIABAAAAAGJiX2V2ZW50cy50eHRQSwEC\n"
    "FAMUAAAAAAAAsHddc4wFKQABAAAAAQAACAAAAAAAAAAAAAAAgAFLAAAAcmVncy5i\n"
    "aW5QSwUGAAAAAAIAAgBxAAAAcQEAAAAA\n";
const char* const kTargetEvents = "target events: assert in kor1\n";

std::map<std::string, std::string> TargetZipEntries() {
    std::string regs;
    for (int i = 0; i < 256; ++i)
        regs += static_cast<char>(i);
    return {{"bb_events.txt", kTargetEvents}, {"regs.bin", regs}};
}

} // namespace crash_test
