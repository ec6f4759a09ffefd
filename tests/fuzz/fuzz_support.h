// What the fuzz targets share: how a rule that an input breaks is told, and that a target which writes fixed
// files never runs on a machine that may have an installed agent.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

/// Ends the run as a finding unless `holds`; `what` says which rule was broken, the line which call found
/// out.
inline void require(bool holds, const char *what = "a rule", int line = __builtin_LINE())
{
    if (holds)
        return;
    std::fprintf(stderr, "broken: %s (line %d)\n", what, line);
    std::abort();
}

/// For LLVMFuzzerInitialize of the targets that write or remove fixed files: ends the program outside the
/// sandbox, where the directory of the settings and logs is a mount of its own.
inline void refuse_host()
{
    struct stat directory;
    struct stat parent;
    if (stat("/usr/lib/voltaria", &directory) == 0 && stat("/usr/lib", &parent) == 0 &&
        directory.st_dev != parent.st_dev && access("/run/voltaria-test", F_OK) == 0)
        return;
    std::fputs("run this in the sandbox: bin/sandbox -- PROGRAM\n", stderr);
    std::exit(1);
}
