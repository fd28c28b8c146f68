// Running the miravel command line from a test: exit code, stdout, stderr.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "MediaTestSupport.h"

namespace CliTest {

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs `cli arguments` with the cache root (and so the frame store) under
// folder; stderr is kept in folder/stderr.txt.
inline CliRun runCli(const std::string& cli, const MediaTest::TempFolder& folder, const std::string& arguments) {
    const std::string errPath = folder.file("stderr.txt");
    const std::string command = "XDG_CACHE_HOME='" + folder.file("cache") + "' '" + cli + "' " + arguments + " 2>'" +
                                errPath + "' </dev/null";
    CliRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> buffer{};
    size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.out.append(buffer.data(), got);
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream err(errPath);
    std::stringstream text;
    text << err.rdbuf();
    run.err = text.str();
    return run;
}

}  // namespace CliTest
