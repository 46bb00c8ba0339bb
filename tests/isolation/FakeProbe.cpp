// A stand-in for kestrel-probe, run in its place from a copy of the tests, that
// does what a vendor library inside the helper may do, as KESTREL_FAKE_PROBE
// says:
//   (unset)      answers one record, "Fake <source>" on bus 0x42, and ends
//   stdout       the same, with text on its standard output before and after
//   grandchild   the same, leaving a process that holds its pipes (its id in a
//                log line, "grandchild <pid>")
//   long         writes more than an answer may hold, then waits
//   descriptors  answers, with a log line that says what reached it: its open
//                descriptors (Linux), or whether the handle named by
//                KESTREL_FAKE_HANDLE did (Windows)
//   logs         answers, with log lines at priorities no helper writes
//   silent       lets any process trace it and waits, answering nothing
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dirent.h>
#include <sys/prctl.h>
#include <unistd.h>
#endif

namespace {

#if defined(_WIN32)
HANDLE answer = nullptr;
void send(const std::string& text)
{
    DWORD written = 0;
    WriteFile(answer, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}
void waitForever() { Sleep(INFINITE); }
#else
int answer = -1;
void send(const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(answer, text.data() + done, text.size() - done);
        if (written <= 0)
            std::exit(3);
        done += static_cast<std::size_t>(written);
    }
}
void waitForever()
{
    for (;;)
        pause();
}
#endif

std::string whatReachedIt()
{
#if defined(_WIN32)
    const char* named = std::getenv("KESTREL_FAKE_HANDLE");
    DWORD flags = 0;
    const auto handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::strtoull(named ? named : "0", nullptr, 10)));
    return GetHandleInformation(handle, &flags) ? "the host's handle" : "not the host's handle";
#else
    std::string descriptors = "descriptors";
    DIR* folder = opendir("/proc/self/fd");
    for (dirent* entry; folder && (entry = readdir(folder));)
        if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(folder))
            descriptors += std::string(" ") + entry->d_name;
    if (folder)
        closedir(folder);
    return descriptors;
#endif
}

} // namespace

int main(int argc, char** argv)
{
    // Its answer pipe as kestrel-probe finds it: named, else standard output.
#if defined(_WIN32)
    answer = GetStdHandle(STD_OUTPUT_HANDLE);
#else
    answer = STDOUT_FILENO;
#endif
    for (int i = 2; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--answer-pipe") == 0) {
            const std::uintptr_t named = std::strtoull(argv[i + 1], nullptr, 10);
#if defined(_WIN32)
            answer = reinterpret_cast<HANDLE>(named);
#else
            answer = static_cast<int>(named);
#endif
        }
    const std::string source = argc > 1 ? argv[1] : "";
    const char* chosen = std::getenv("KESTREL_FAKE_PROBE");
    const std::string mode = chosen ? chosen : "";
    send("kestrel-probe 1\n");
    if (mode == "silent") {
#if !defined(_WIN32)
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
#endif
        waitForever();
    }
    if (mode == "long") {
        const std::string line = "log 3 fake.probe " + std::string(1000, 'x') + "\n";
        for (int i = 0; i < 5000; ++i)
            send(line);
        waitForever();
    }
    if (mode == "stdout") {
        std::printf("not an answer\n");
        std::fflush(stdout);
    }
    if (mode == "descriptors")
        send("log 4 fake.probe " + whatReachedIt() + "\n");
    if (mode == "logs")
        send("log 9 fake.probe nine\nlog -1 fake.probe minus one\nlog 3 fake.quiet quiet\nlog 3 fake.probe three\n");
#if !defined(_WIN32)
    if (mode == "grandchild") {
        const pid_t grandchild = fork();
        if (grandchild == 0)
            waitForever();
        send("log 4 fake.probe grandchild " + std::to_string(grandchild) + "\n");
    }
#endif
    send("gpu 0 66 0 0\nname Fake " + source + "\nend\nstatus 0000\ndone\n");
    if (mode == "stdout")
        std::printf("still not an answer\n");
    return 0;
}
