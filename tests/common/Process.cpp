#include "common/Process.h"

#include <cstdio>

#include "common/Paths.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace kestrel::test {
namespace {

#if defined(_WIN32)
// Quotes one argument the way the C runtime splits a command line.
std::wstring quoted(const std::string& argument)
{
    std::wstring wide(argument.begin(), argument.end());
    std::wstring result = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : wide) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        result.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        result += c;
    }
    result.append(backslashes * 2, L'\\');
    return result + L"\"";
}

HANDLE inheritableFile(const std::string& path)
{
    SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    return CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &security, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}
#endif

} // namespace

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments)
{
    static int runs = 0;
    const std::string outPath = temporaryPath("process-" + std::to_string(runs) + ".out");
    const std::string errPath = temporaryPath("process-" + std::to_string(runs++) + ".err");
    ProcessResult result;
#if defined(_WIN32)
    std::wstring commandLine = quoted(program);
    for (const auto& argument : arguments)
        commandLine += L" " + quoted(argument);
    HANDLE out = inheritableFile(outPath);
    HANDLE err = inheritableFile(errPath);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = out;
    startup.hStdError = err;
    PROCESS_INFORMATION process{};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        result.exitCode = static_cast<int>(code);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(out);
    CloseHandle(err);
#else
    const pid_t child = fork();
    if (child == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const auto& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
#endif
    result.out = fileText(outPath);
    result.err = fileText(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    return result;
}

} // namespace kestrel::test
