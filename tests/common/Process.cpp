#include "common/Process.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

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

// A program's path as CreateProcessW takes it at any length: past MAX_PATH,
// its 8.3 form (Wine takes no longer one, \\?\ or not).
std::wstring anyLengthPath(const std::string& program)
{
    std::wstring path = std::filesystem::u8path(program).wstring();
    std::replace(path.begin(), path.end(), L'/', L'\\');
    if (path.size() < MAX_PATH)
        return path;
    path = L"\\\\?\\" + path;
    std::wstring shorter(path.size() + 1, L'\0');
    shorter.resize(GetShortPathNameW(path.c_str(), shorter.data(), static_cast<DWORD>(shorter.size())));
    return shorter;
}

HANDLE inheritableFile(const std::string& path)
{
    SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    return CreateFileA(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &security, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}
#endif

std::optional<std::string> variable(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    return value ? std::optional<std::string>(value) : std::nullopt;
}

// Sets a variable, or removes it when there is no value.
void putVariable(const std::string& name, const std::optional<std::string>& value)
{
#if defined(_WIN32)
    setEnvironment(name, value.value_or("")); // an empty value removes it
#else
    if (value)
        setenv(name.c_str(), value->c_str(), 1);
    else
        unsetenv(name.c_str());
#endif
}

} // namespace

void setEnvironment(const std::string& name, const std::string& value)
{
#if defined(_WIN32)
    _putenv_s(name.c_str(), value.c_str());
#else
    setenv(name.c_str(), value.c_str(), 1);
#endif
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const RunOptions& options)
{
    // Set here for the child to inherit, and put back once it has ended.
    std::vector<std::pair<std::string, std::optional<std::string>>> previous;
    for (const auto& [name, value] : options.environment) {
        previous.emplace_back(name, variable(name));
        putVariable(name, value);
    }

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
    const std::wstring application = anyLengthPath(program);
    const std::wstring directory = std::filesystem::u8path(options.directory).wstring();
    if (CreateProcessW(application.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                       directory.empty() ? nullptr : directory.c_str(), &startup, &process)) {
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
        if (!options.directory.empty() && chdir(options.directory.c_str()) != 0)
            _exit(126);
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
    for (const auto& [name, value] : previous)
        putVariable(name, value);
    result.out = fileText(outPath);
    result.err = fileText(errPath);
    std::remove(outPath.c_str());
    std::remove(errPath.c_str());
    return result;
}

#if !defined(_WIN32)
std::vector<int> childProcesses(int parent)
{
    std::vector<int> children;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        // "pid (name) state ppid ...": the name may hold anything, so read from its last ')'.
        const std::string stat = fileText(entry.path().u8string() + "/stat");
        const auto nameEnd = stat.rfind(')');
        int itsParent = 0;
        if (nameEnd != std::string::npos && std::sscanf(stat.c_str() + nameEnd + 1, " %*c %d", &itsParent) == 1 &&
            itsParent == parent)
            children.push_back(std::atoi(entry.path().filename().c_str()));
    }
    std::sort(children.begin(), children.end());
    return children;
}

std::vector<int> openDescriptors()
{
    std::vector<int> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        open.push_back(std::atoi(entry.path().filename().c_str()));
    std::sort(open.begin(), open.end());
    // The listing's own descriptor, open while it is read, is the one no longer open now.
    open.erase(std::remove_if(open.begin(), open.end(), [](int descriptor) { return fcntl(descriptor, F_GETFD) < 0; }),
               open.end());
    return open;
}
#endif

} // namespace kestrel::test
