#if defined(_WIN32)
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>

#include <windows.h>

#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/isolation/Process.h"

namespace libKestrel::isolation {
namespace {

std::wstring widened(const std::string& text)
{
    if (text.empty())
        return {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

// One argument quoted as the C runtime splits a command line.
std::wstring quoted(const std::string& argument)
{
    std::wstring result = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : widened(argument)) {
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

// A path that file and process functions take at any length: its \\?\ form,
// which takes no '/' and no relative parts, for a path past MAX_PATH or when
// 'always'.
std::wstring anyLengthPath(const std::string& path, bool always = false)
{
    std::wstring wide = widened(path);
    std::replace(wide.begin(), wide.end(), L'/', L'\\');
    if ((wide.size() < MAX_PATH && !always) || wide.rfind(L"\\\\?\\", 0) == 0)
        return wide;
    if (wide.rfind(L"\\\\", 0) == 0)
        return L"\\\\?\\UNC\\" + wide.substr(2);
    return L"\\\\?\\" + wide;
}

// The \\?\ form of a path's 8.3 form, for the systems whose CreateProcessW
// takes no path past MAX_PATH, nor an 8.3 one without that prefix (Wine).
std::wstring shortForm(const std::string& path)
{
    const std::wstring whole = anyLengthPath(path, true);
    std::wstring shorter(whole.size() + 1, L'\0');
    const DWORD length = GetShortPathNameW(whole.c_str(), shorter.data(), static_cast<DWORD>(shorter.size()));
    shorter.resize(length < shorter.size() ? length : 0);
    return shorter;
}

HANDLE inheritableCopy(HANDLE handle)
{
    HANDLE copy = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS))
        return nullptr;
    return copy;
}

std::string failure(const std::string& what) { return what + " (error " + std::to_string(GetLastError()) + ")"; }

// A job that ends the child and everything it starts when it is stopped, and
// when its last handle closes: when the host ends.
HANDLE killingJob()
{
    HANDLE job = CreateJobObjectW(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job && !SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        CloseHandle(job);
        return nullptr;
    }
    return job;
}

// The children that did not end when stopped: their process and job handles.
struct Abandoned {
    std::mutex mutex;
    std::vector<std::pair<HANDLE, HANDLE>> children;
};

Abandoned& abandoned()
{
    static Abandoned list;
    return list;
}

} // namespace

Process::Process(const std::vector<std::string>& command, std::string& problem, bool requests)
{
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    HANDLE requestEnd = nullptr; // the child's end of the request pipe
    if (!CreatePipe(&readEnd, &writeEnd, nullptr, 0) ||
        (requests && !CreatePipe(&requestEnd, &requests_, nullptr, 0))) {
        problem = failure("cannot make a pipe");
        if (readEnd)
            CloseHandle(readEnd);
        if (writeEnd)
            CloseHandle(writeEnd);
        return;
    }
    answer_ = readEnd;
    // What the child gets: inheritable copies of its answer pipe, of an empty
    // input, of the host's standard error and of its request pipe, closed here
    // once it has them.
    HANDLE handed[4] = {inheritableCopy(writeEnd), nullptr, nullptr, requests ? inheritableCopy(requestEnd) : nullptr};
    PROCESS_INFORMATION started{};
    ScopeExit closeTemporaries([&] {
        for (HANDLE handle : {writeEnd, requestEnd, handed[0], handed[1], handed[2], handed[3], started.hThread})
            if (handle)
                CloseHandle(handle);
    });
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    handed[1] = CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                            OPEN_EXISTING, 0, nullptr);
    if (handed[1] == INVALID_HANDLE_VALUE)
        handed[1] = nullptr;
    const HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
    handed[2] = inheritableCopy(error && error != INVALID_HANDLE_VALUE ? error : handed[1]);
    if (!handed[0] || !handed[1] || !handed[2] || (requests && !handed[3])) {
        problem = failure("cannot prepare its handles");
        return;
    }

    // Exactly these handles are inherited, whatever else of the host's is inheritable.
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<unsigned char> storage(size);
    const auto attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    if (!InitializeProcThreadAttributeList(attributes, 1, 0, &size)) {
        problem = failure("cannot list its handles");
        return;
    }
    ScopeExit deleteList([attributes] { DeleteProcThreadAttributeList(attributes); });
    const SIZE_T handedSize = (requests ? 4 : 3) * sizeof(HANDLE);
    if (!UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handed, handedSize, nullptr,
                                   nullptr)) {
        problem = failure("cannot list its handles");
        return;
    }
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = handed[1];
    startup.StartupInfo.hStdOutput = handed[2];
    startup.StartupInfo.hStdError = handed[2];
    startup.lpAttributeList = attributes;

    std::wstring line;
    for (const std::string& argument : command)
        line += (line.empty() ? L"" : L" ") + quoted(argument);
    line += L" --answer-pipe " + std::to_wstring(reinterpret_cast<std::uintptr_t>(handed[0]));
    if (requests)
        line += L" --request-pipe " + std::to_wstring(reinterpret_cast<std::uintptr_t>(handed[3]));
    // Started suspended, so that it is in its job before it can start anything.
    const auto create = [&](const std::wstring& program) {
        return CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                              CREATE_NO_WINDOW | CREATE_SUSPENDED | EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr,
                              &startup.StartupInfo, &started);
    };
    if (!create(anyLengthPath(command.front())) && !create(shortForm(command.front()))) {
        problem = failure("cannot start " + command.front());
        return;
    }
    process_ = started.hProcess;
    running_ = true;
    job_ = killingJob();
    if (!job_ || !AssignProcessToJobObject(job_, process_)) {
        problem = failure("cannot put " + command.front() + " in a job");
        TerminateProcess(process_, 1);
        closeAnswer();
        waitForAny({this}, Clock::now() + stopMargin);
        if (!ended())
            abandon();
        return;
    }
    ResumeThread(started.hThread);
}

bool Process::read(std::string& answer, std::size_t most)
{
    while (answer_ && answer.size() < most) {
        DWORD available = 0;
        if (!PeekNamedPipe(answer_, nullptr, 0, nullptr, &available, nullptr))
            return false; // every write end is closed
        if (available == 0)
            return true;
        char buffer[65536];
        const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>({available, sizeof buffer, most - answer.size()}));
        DWORD got = 0;
        if (!ReadFile(answer_, buffer, wanted, &got, nullptr))
            return false;
        answer.append(buffer, got);
    }
    return answer_ != nullptr;
}

void Process::closeAnswer()
{
    if (answer_)
        CloseHandle(answer_);
    answer_ = nullptr;
}

bool Process::reading() const { return answer_ != nullptr; }

bool Process::request(const std::string& line)
{
    for (std::size_t sent = 0; requests_ && sent < line.size();) {
        DWORD written = 0;
        if (!WriteFile(requests_, line.data() + sent, static_cast<DWORD>(line.size() - sent), &written, nullptr))
            return false; // the child has let go of its end
        sent += written;
    }
    return requests_ != nullptr;
}

void Process::closeRequests()
{
    if (requests_)
        CloseHandle(requests_);
    requests_ = nullptr;
}

std::optional<ProcessEnd> Process::ended()
{
    if (!running_ || WaitForSingleObject(process_, 0) != WAIT_OBJECT_0)
        return std::nullopt;
    DWORD code = 0;
    GetExitCodeProcess(process_, &code);
    if (job_) {
        TerminateJobObject(job_, 1); // whatever it started and left running
        CloseHandle(job_);
    }
    CloseHandle(process_);
    job_ = nullptr;
    process_ = nullptr;
    running_ = false;
    // An unhandled exception ends a process with its NTSTATUS code (0xC0000005
    // for an access violation); a program's own exit codes are small.
    return ProcessEnd{code >= 0xC0000000u, static_cast<long>(code)};
}

void Process::kill()
{
    if (!running_)
        return;
    if (job_)
        TerminateJobObject(job_, 1);
    TerminateProcess(process_, 1);
}

void Process::abandon()
{
    if (!running_)
        return;
    Abandoned& list = abandoned();
    std::lock_guard<std::mutex> lock(list.mutex);
    list.children.emplace_back(process_, job_);
    process_ = nullptr;
    job_ = nullptr;
    running_ = false;
}

void Process::waitForAny(const std::vector<Process*>& processes, Clock::time_point until)
{
    // A pipe cannot be waited for: while one is read, look again shortly.
    std::vector<HANDLE> running;
    bool reading = false;
    for (const Process* process : processes) {
        if (process->running_)
            running.push_back(process->process_);
        reading = reading || process->answer_;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    const auto timeout = static_cast<DWORD>(std::clamp<decltype(left)>(left, 0, reading ? 2 : 1000));
    if (running.empty() || running.size() > MAXIMUM_WAIT_OBJECTS)
        Sleep(std::min<DWORD>(timeout, 2));
    else
        WaitForMultipleObjects(static_cast<DWORD>(running.size()), running.data(), FALSE, timeout);
}

void Process::collectAbandoned()
{
    Abandoned& list = abandoned();
    std::lock_guard<std::mutex> lock(list.mutex);
    auto& children = list.children;
    children.erase(std::remove_if(children.begin(), children.end(),
                                  [](const std::pair<HANDLE, HANDLE>& child) {
                                      if (WaitForSingleObject(child.first, 0) != WAIT_OBJECT_0)
                                          return false;
                                      CloseHandle(child.first);
                                      if (child.second)
                                          CloseHandle(child.second);
                                      return true;
                                  }),
                   children.end());
}

bool Process::isProgram(const std::string& path)
{
    const DWORD attributes = GetFileAttributesW(anyLengthPath(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES &&
           !(attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT));
}

} // namespace libKestrel::isolation
#endif
