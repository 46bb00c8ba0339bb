// The main of every test executable. A run whose filter matches no test fails:
// a renamed or mistyped test must not leave its CTest entry green while it
// tests nothing.
#include <cstdio>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    if (testing::UnitTest::GetInstance()->test_to_run_count() == 0) {
        std::fprintf(stderr, "No test matches this run's filter.\n");
        return 1;
    }
    return result;
}
