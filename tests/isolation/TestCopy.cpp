#include "TestCopy.h"

#include <sstream>

#include "common/Paths.h"

#if defined(_WIN32)
#include <windows.h>
#endif

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

#if defined(_WIN32)
const char* const extension = ".exe";
#else
const char* const extension = "";
#endif

const fs::path program = std::string("isolation_tests") + extension;

#if defined(_WIN32)
// A folder and all it holds, by the \\?\ form of its path: the only one that
// removes files past MAX_PATH under Wine (std::filesystem uses the other).
void removeAll(const std::wstring& folder)
{
    WIN32_FIND_DATAW found;
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    for (BOOL more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found)) {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..")
            continue;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            removeAll(folder + L"\\" + name);
        else
            DeleteFileW((folder + L"\\" + name).c_str());
    }
    if (search != INVALID_HANDLE_VALUE)
        FindClose(search);
    RemoveDirectoryW(folder.c_str());
}
#endif

} // namespace

TestCopy::TestCopy(const fs::path& folder, const std::string& helper) : folder_(folder), made_(folder)
{
    const fs::path built = fs::u8path(executableDirectory());
    // What is made here, and removed at the end: the folder's first missing ancestor.
    while (!fs::exists(made_.parent_path()))
        made_ = made_.parent_path();
    fs::create_directories(folder_);
    fs::copy_file(built / program, folder_ / program, fs::copy_options::overwrite_existing);
    if (!helper.empty())
        fs::copy_file(built / (helper + extension), folder_ / (std::string("kestrel-probe") + extension),
                      fs::copy_options::overwrite_existing);
#if defined(_WIN32)
    // The libraries the program loads, which Windows looks for beside it.
    for (const auto& entry : fs::directory_iterator(built))
        if (entry.path().extension() == ".dll")
            fs::copy_file(entry.path(), folder_ / entry.path().filename(), fs::copy_options::overwrite_existing);
#endif
}

TestCopy::~TestCopy()
{
#if defined(_WIN32)
    removeAll(L"\\\\?\\" + made_.wstring());
#else
    std::error_code ignored;
    fs::remove_all(made_, ignored);
#endif
}

ProcessResult TestCopy::run(const std::vector<std::string>& arguments) const
{
    return runProcess((folder_ / program).u8string(), arguments);
}

TestCopy::Runs TestCopy::runEach(const std::string& filter) const
{
    // "Suite.\n  Case\n  Case\n...", as GoogleTest lists them.
    std::istringstream listed(run({"--gtest_list_tests", "--gtest_filter=" + filter}).out);
    Runs runs;
    std::string suite;
    for (std::string line; std::getline(listed, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.rfind("  ", 0) != 0) {
            suite = line;
            continue;
        }
        const std::string test = suite + line.substr(2);
        const ProcessResult result = run({"--gtest_filter=" + test});
        ++runs.count;
        if (result.exitCode != 0)
            runs.failures += test + " failed:\n" + result.out + result.err + "\n";
    }
    return runs;
}

} // namespace kestrel::test
