// shmtool: the operator's view into the shared-memory state store, built on
// the public interface (libshm.h) alone. Command groups live in their own
// files; this one holds the command line and the exit statuses.
#include <cstdio>
#include <exception>
#include <sstream>

#include "common.h"

using namespace shmtool;

namespace {

int report(int status, const char* message) {
    std::fflush(stdout);  // what the command printed comes first
    std::fprintf(stderr, "shmtool: %s\n", message);
    return status;
}

// Every command's output is checked here, once: a write that failed at any
// point (a full disk, /dev/full, a closed pipe's EPIPE with SIGPIPE ignored)
// turns success into status 1 with the reason. A command that failed already
// keeps its status; the output's failure is reported after its message.
int finish(int status) {
    try {
        finish_output();
    } catch (const Error& e) {
        std::fprintf(stderr, "shmtool: %s\n", e.message.c_str());
        if (status == kOk) status = e.status;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    route_output();
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

    int status = kOk;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and usage text go through the same checked streams as a command's output.
        std::ostringstream out, err;
        status = app.exit(e, out, err) == 0 ? kOk : kUsage;
        std::fputs(out.str().c_str(), stdout);
        std::fflush(stdout);
        std::fputs(err.str().c_str(), stderr);
        return finish(status);
    }
    try {
        if (g_options.private_store) enter_private_store();
        if (g_options.verbose) install_log_hook();
        run_action();
    } catch (const Error& e) {
        status = report(e.status, e.message.c_str());
    } catch (const std::exception& e) {
        status = report(kFailed, e.what());
    }
    return finish(status);
}
