#include "TestCopy.h"

#include <sstream>

#include "common/Paths.h"

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

#if defined(_WIN32)
const char* const extension = ".exe";
#else
const char* const extension = "";
#endif

const fs::path program = std::string("isolation_tests") + extension;

} // namespace

TestCopy::TestCopy(const fs::path& folder, const std::string& helper) : folder_(folder)
{
    const fs::path built = fs::u8path(executableDirectory());
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
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
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
