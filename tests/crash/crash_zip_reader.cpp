#include "crash_zip_reader.h"

#include <sys/wait.h>

#include <cstdio>

namespace crash_test {

namespace {

// Runs a shell command and collects its standard output; true when it exited with 0.
bool Run(const std::string& command, std::string& output) {
    output.clear();
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return false;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, got);
    const int status = pclose(pipe);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

const char kReadScript[] = "import sys, zipfile\n"
                           "z = zipfile.ZipFile(sys.argv[1])\n"
                           "bad = z.testzip()\n"
                           "if bad: sys.exit('bad CRC in ' + bad)\n"
                           "for i in z.infolist():\n"
                           "    print(i.filename, i.compress_type, z.read(i).hex(), sep='\\t')\n";

const char kWriteScript[] = "import sys, zipfile\n"
                            "z = zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED)\n"
                            "a = sys.argv[2:]\n"
                            "for name, source in zip(a[0::2], a[1::2]): z.write(source, name)\n"
                            "z.close()\n";

std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace

bool ReadZip(const std::string& path, ZipEntries& entries, std::string* error) {
    entries.clear();
    std::string output;
    if (!Run("python3 -c " + Quoted(kReadScript) + " " + Quoted(path) + " 2>&1", output)) {
        if (error != nullptr)
            *error = output;
        return false;
    }
    size_t start = 0;
    for (size_t end; (end = output.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string line = output.substr(start, end - start);
        const size_t tab1 = line.find('\t'), tab2 = line.find('\t', tab1 + 1);
        ZipEntry& entry = entries[line.substr(0, tab1)];
        entry.method = std::stoi(line.substr(tab1 + 1, tab2 - tab1 - 1));
        const std::string hex = line.substr(tab2 + 1);
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            entry.data += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return true;
}

bool WriteZip(const std::string& path,
              const std::vector<std::pair<std::string, std::string>>& nameAndSource) {
    std::string command = "python3 -c " + Quoted(kWriteScript) + " " + Quoted(path);
    for (const auto& [name, source] : nameAndSource)
        command += " " + Quoted(name) + " " + Quoted(source);
    std::string output;
    return Run(command, output);
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

} // namespace crash_test
