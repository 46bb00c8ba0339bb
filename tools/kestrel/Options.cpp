#include "Options.h"

#include <cstdio>

#include <CLI/CLI.hpp>

namespace kestrel {

Parsed parseCommandLine(int argc, char** argv)
{
    CLI::App app("Reports every GPU of this machine, as the vendor interfaces installed here see it.", "kestrel");
    app.set_version_flag("--version", std::string("kestrel ") + KESTREL_VERSION);

    Options options;
    int logLevel = 0;
    std::string scenario;
    double watchSeconds = 0;
    app.add_flag("--json", options.json, "Print one JSON document: every property of every GPU, null when unknown");
    auto* logOption = app.add_option("--log-level", logLevel,
                                     "Write the library's log to standard error from this priority up "
                                     "(1 traces everything, 4 only the gravest failures)")
                          ->type_name("LEVEL")
                          ->check(CLI::Range(1, 4).description(""));
    auto* simulateOption = app.add_option("--simulate", scenario,
                                          "Run against the vendor simulator, on the machine this scenario "
                                          "(a JSON file) describes")
                              ->type_name("FILE");
    auto* watchOption = app.add_option("--watch", watchSeconds, "Query and report again every SECONDS until interrupted (with --json, one document per line)")
                            ->type_name("SECONDS")
                            ->check(CLI::Validator(
                                [](std::string& text) -> std::string {
                                    try {
                                        if (std::stod(text) > 0)
                                            return {};
                                    } catch (const std::exception&) {
                                    }
                                    return "'" + text + "' is not a number of seconds above 0";
                                },
                                ""));

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return {std::nullopt, app.exit(help)};
    } catch (const CLI::CallForAllHelp& help) {
        return {std::nullopt, app.exit(help)};
    } catch (const CLI::CallForVersion& version) {
        return {std::nullopt, app.exit(version)};
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "kestrel: %s (see kestrel --help)\n", error.what());
        return {std::nullopt, 2};
    }
    if (logOption->count())
        options.logLevel = logLevel;
    if (simulateOption->count())
        options.scenario = scenario;
    if (watchOption->count())
        options.watchSeconds = watchSeconds;
    return {options, 0};
}

} // namespace kestrel
