// A host of the shared library that changes its current folder before its
// isolated query: the folder named by its argument. Prints the records it gets,
// one per line: location and name.
#include <cstdio>

#include <unistd.h>

#include "libKestrel/libKestrel.h"

int main(int argc, char** argv)
{
    if (argc != 2 || chdir(argv[1]) != 0)
        return 2;
    std::bitset<4> status;
    for (const auto& gpu : libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryNVidiaGPUs}, status))
        std::printf("%s %s\n", gpu->pciLocation()->toString(true).str().c_str(), gpu->name().value_or("").c_str());
    return 0;
}
