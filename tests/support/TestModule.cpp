// A tiny loadable module for the DynamicLibrary tests.
#if defined(_WIN32)
#define TEST_MODULE_EXPORT extern "C" __declspec(dllexport)
#else
#define TEST_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

TEST_MODULE_EXPORT int kestrelTestModuleAnswer() { return 42; }
