#include "Options.h"

#include <cmath>
#include <cstdio>

#include <CLI/CLI.hpp>

namespace kestrel {
namespace {

// A number of seconds above 0, for --watch and --interval.
const CLI::Validator positiveSeconds(
    [](std::string& text) -> std::string {
        try {
            std::size_t used = 0;
            const double seconds = std::stod(text, &used);
            if (used == text.size() && seconds > 0 && std::isfinite(seconds))
                return {};
        } catch (const std::exception&) {
        }
        return "'" + text + "' is not a positive number of seconds";
    },
    "");

} // namespace

Parsed parseCommandLine(int argc, char** argv)
{
    CLI::App app("Reports every GPU of this machine, as the vendor interfaces installed here see it.", "kestrel");
    app.set_version_flag("--version", std::string("kestrel ") + KESTREL_VERSION);

    Options options;
    int logLevel = 0;
    std::string scenario;
    double watchSeconds = 0;
    auto* jsonOption =
        app.add_flag("--json", options.json, "Print one JSON document: every property of every GPU, null when unknown");
    app.add_flag("--prometheus", options.prometheus,
                 "Print the GPUs' readings once in Prometheus's text format (for a node exporter's textfile "
                 "collector or a script)")
        ->excludes(jsonOption);
    app.add_flag("--isolate", options.isolate,
                 "Run each vendor interface in a child process, so that a crashing or hanging driver costs only "
                 "its own GPUs' readings");
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
                            ->check(positiveSeconds);

    ServeOptions serve;
    auto* serveCommand = app.add_subcommand("serve", "Serve the GPUs' readings to Prometheus at /metrics over HTTP, "
                                                     "read once per interval in helper processes, until interrupted");
    serveCommand->fallthrough(); // --simulate and --log-level work after it too
    serveCommand->add_option("--listen", serve.listen, "The address and port to listen on (all interfaces: 0.0.0.0:PORT)")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    serveCommand->add_option("--interval", serve.intervalSeconds, "The shortest time between two refreshes")
        ->type_name("SECONDS")
        ->check(positiveSeconds)
        ->capture_default_str();
    serveCommand->add_flag("--in-process", serve.inProcess,
                           "Call the vendor interfaces in this process instead of in helper processes: a little "
                           "cheaper, but a driver that crashes takes the server down with it, and one that hangs "
                           "freezes the readings until the server is restarted");

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
    if (serveCommand->parsed())
        options.serve = serve;
    return {options, 0};
}

} // namespace kestrel
