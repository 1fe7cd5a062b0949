// shmtool: the operator's view into the shared-memory state store, built on
// the public interface (libshm.h) alone. Command groups live in their own
// files; this one holds the command line and the exit statuses.
#include <cstdio>
#include <exception>

#include "common.h"

using namespace shmtool;

int main(int argc, char** argv) {
    CLI::App app{"Look into the shared-memory state store and change it by hand.", "shmtool"};
    app.footer(
        "Exit status: 0 success, 1 the library (or the system) reported a failure, 2 usage error or bad "
        "input (nothing changed).\nRun 'shmtool COMMAND --help' for a command's arguments.");
    app.add_flag("--json", g_options.json, "Print read commands' results as one JSON document");
    app.add_flag("-v,--verbose", g_options.verbose, "Print the library's messages to stderr, with their levels");
    app.add_flag("--private", g_options.private_store,
                 "Run on a fresh store in a private IPC namespace (needs root or user namespaces)");
    app.require_subcommand(1);
    app.fallthrough();  // global options are accepted after the command too

    add_info_command(app);
    add_dump_commands(app);
    add_view_commands(app);
    add_fru_dimm_commands(app);
    CLI::App* sdc = app.add_subcommand("sdc", "The serial data record ring (section 26)");
    sdc->require_subcommand(1);
    add_sdc_image_commands(*sdc);
    add_sdc_commands(*sdc);
    add_demo_command(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kOk : kUsage;
    }
    try {
        if (g_options.private_store) enter_private_store();
        if (g_options.verbose) install_log_hook();
        run_action();
    } catch (const Error& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "shmtool: %s\n", e.message.c_str());
        return e.status;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "shmtool: %s\n", e.what());
        return kFailed;
    }
    return std::fflush(stdout) == 0 ? kOk : kFailed;
}
