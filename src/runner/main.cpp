// corvane-script-runner: reads one JSON request from standard input, runs one hook of the
// script in it, and writes one JSON answer to standard output. The request format and the
// script conventions are described in docs/scripts.md.

#include "process_limits.h"
#include "script_host.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

std::string readAll(int fd)
{
    std::string data;
    char buffer[65536];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count > 0)
            data.append(buffer, std::size_t(count));
        else if (count == 0 || errno != EINTR)
            return data;
    }
}

bool writeAll(int fd, const std::string &data)
{
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t count = write(fd, data.data() + written, data.size() - written);
        if (count > 0)
            written += std::size_t(count);
        else if (count < 0 && errno != EINTR)
            return false;
    }
    return true;
}

} // namespace

int main()
{
    ProcessLimits::apply();
    const std::string request = readAll(STDIN_FILENO);
    const std::string answer = ScriptHost::run(request);
    const bool written = writeAll(STDOUT_FILENO, answer);
    // Tearing the engine down would only cost time: the process ends here.
    _exit(written ? 0 : 1);
}
