#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "common/Process.h"

namespace kestrel::test {

// A copy of this test program in a folder of its own, with a helper program in
// kestrel-probe's place beside it or none, so that an isolated query run from
// the copy finds that helper. The folder (and the folders made for it) is
// removed again at the end.
class TestCopy {
public:
    // 'helper' is the file name of a program built beside the tests; empty for none.
    TestCopy(const std::filesystem::path& folder, const std::string& helper);
    ~TestCopy();
    TestCopy(const TestCopy&) = delete;
    TestCopy& operator=(const TestCopy&) = delete;

    // Runs the copy's tests that 'filter' selects, each in a process of its own.
    struct Runs {
        int count = 0;
        std::string failures; // the output of each test that failed
    };
    Runs runEach(const std::string& filter) const;
    ProcessResult run(const std::vector<std::string>& arguments) const;

private:
    std::filesystem::path folder_;
    std::filesystem::path made_;
};

} // namespace kestrel::test
